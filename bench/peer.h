/// The peer: whole operations as a programmer writes them with std::string, std::ifstream, pugixml and OpenSSL.
///
/// It reads the files that the library reads, each once per operation, and keeps nothing between operations. Failures
/// throw std::runtime_error.
#ifndef TALLOWIN_BENCH_PEER_H
#define TALLOWIN_BENCH_PEER_H

#include <string>

namespace kvxbench::peer {

/// The URL of a new payment of the order, signed with the current key of `directory`.
std::string paymentUrl(std::string const& directory);

/// Whether `signature` is one of `data` by the key that `data` names.
bool verifies(std::string const& directory, std::string const& data, std::string const& signature);

}  // namespace kvxbench::peer

#endif
