// Text as libkx and its tools read and show it: one-line messages and whole integers.
#ifndef KX_TEXT_H
#define KX_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kx {

// A canonical decimal int32, exactly as std::to_string writes it: no sign but `-`, no
// leading zero, no blank ("007", "-0", "+1", " 1" are refused).
std::optional<int32_t> parse_int32(std::string_view text);

// `text` fit for a one-line message: printable ASCII as is, other bytes and `\`
// as \xNN, cut after 64 bytes with "...".
std::string printable(std::string_view text);

} // namespace kx

#endif
