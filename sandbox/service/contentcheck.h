#ifndef TALLOWIN_SANDBOX_SERVICE_CONTENTCHECK_H
#define TALLOWIN_SANDBOX_SERVICE_CONTENTCHECK_H

#include <string>
#include <vector>

#include "sandbox/text/paymessage.h"

/// A second opinion on what a PayInit says: mistakes that are signed rightly and that a provider would refuse.
namespace sandbox {

/// What is wrong with the content of a PayInit, a sentence without a full stop each; empty when all is well.
///
/// AMOUNT must be digits, above zero, with at most four more behind a point: the list of currencies says nothing of
/// their minor units. CURRENCY must be one of ISO 4217. A name that is one edit, or only capital letters, away from a
/// known name is taken for a mistake, unless the message has the known one too.
std::vector<std::string> contentProblems(Message const& message);

/// What is wrong with DATA as it travelled: it must be percent-encoded once, as merchants write it (letters and digits
/// as they are, every other byte as "%" and two lower-case digits).
std::vector<std::string> encodingProblems(std::string const& data);

/// Whether decoded DATA still is percent-encoded.
bool isEncodedAgain(std::string const& data);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_CONTENTCHECK_H
