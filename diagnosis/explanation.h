#ifndef TALLOWIN_DIAGNOSIS_EXPLANATION_H
#define TALLOWIN_DIAGNOSIS_EXPLANATION_H

#include <string>

#include "diagnosis/diagnosis.h"

/// A Diagnosis in two sentences.
namespace diagnosis {

/// The cause and its cure. Both are printable: control characters and bytes outside UTF-8 are written as \xNN.
struct Explanation {
    std::string m_Sentence;  ///< "AMOUNT was changed from 12.50 to 1.50". No full stop.
    std::string m_Change;    ///< The change that makes the signature pass: "change AMOUNT to 12.50"; empty for none.
};

/// The main cause in `diagnosis`. `wording` is that of its Evidence.
Explanation explain(Wording const& wording, Diagnosis const& diagnosis);

/// `text` with control characters and bytes outside UTF-8 as \xNN, and a backslash doubled.
std::string printable(std::string const& text);

/// The place where two texts differ: "'x' was removed after 'MSGTYPE='".
std::string changedPlace(std::string const& before, std::string const& after);

}  // namespace diagnosis

#endif  // TALLOWIN_DIAGNOSIS_EXPLANATION_H
