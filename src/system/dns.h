/// Asks the name servers of this machine: resolver(3).
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// The values of the records of a name, as a zone file has them (RFC 1035, section 5): of type "MX"
/// "10 HOST.", of "SRV" "0 1 PORT HOST.", and of "TXT" the text in one piece, without quotes. Nothing when no
/// name server answers within `patience`, twice for each of them.
std::optional<std::vector<std::string>> AskDns(const std::string& name, const std::string& type,
                                               std::chrono::seconds patience);
