#include "kx_text.h"

#include <charconv>

namespace kx {

std::optional<int32_t> parse_int32(std::string_view text)
{
    int32_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty() ||
        std::to_string(value) != text)
        return std::nullopt;
    return value;
}

std::string printable(std::string_view value)
{
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : value.substr(0, 64)) {
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    if (value.size() > 64)
        out += "...";
    return out;
}

} // namespace kx
