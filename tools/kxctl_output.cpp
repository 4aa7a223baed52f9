// kxctl's output lines (the forms are described in kxctl_output.h).
#include "kxctl_output.h"

#include <algorithm>
#include <cstdio>

namespace kxctl {
namespace {

// `s` in double quotes with backslash escapes: \" \\ \n \r \t, and `hex` (a printf
// format) for the other control bytes and, when `escape_high`, bytes above ASCII.
std::string quoted(std::string_view s, const char *hex, bool escape_high)
{
    std::string out = "\"";
    for (char c : s) {
        auto u = static_cast<unsigned char>(c);
        const char *named = c == '"'    ? "\\\""
                            : c == '\\' ? "\\\\"
                            : c == '\n' ? "\\n"
                            : c == '\r' ? "\\r"
                            : c == '\t' ? "\\t"
                                        : nullptr;
        char plain[8] = {c};
        if (!named && (u < 0x20 || u == 0x7f || (escape_high && u > 0x7f)))
            snprintf(plain, sizeof plain, hex, u);
        out += named ? named : plain;
    }
    return out + "\"";
}

std::string plain_text(std::string_view s)
{
    bool bare = !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
        return c > ' ' && c < 0x7f && c != '"' && c != '\\';
    });
    return bare ? std::string(s) : quoted(s, "\\x%02x", true);
}

std::string json_object(const std::vector<Value> &values)
{
    std::string out;
    for (const Value &v : values)
        out += (out.empty() ? "" : ",") + json_string(v.name) + ":" +
               (v.kind == Kind::bare ? v.text : json_string(v.text, v.kind));
    return "{" + out + "}";
}

} // namespace

std::string json_string(std::string_view s, Kind kind)
{
    return quoted(s, "\\u%04x", kind == Kind::bytes);
}

std::string render(const Line &line, Style style)
{
    std::string out;
    if (style == Style::plain) {
        if (!line.event.empty())
            out = std::string(line.event) + " ";
        out += plain_text(line.key);
        for (const Value &v : line.fields ? *line.fields : std::vector<Value>{})
            out += " " + std::string(v.name) + "=" + plain_text(v.text);
        if (line.entries)
            out += " entries=" + std::to_string(*line.entries);
        return out + "\n";
    }
    out = "{";
    if (!line.event.empty())
        out += "\"event\":" + json_string(line.event) + ",";
    out += "\"key\":" + json_string(line.key);
    if (!line.index.empty())
        out += ",\"index\":" + json_object(line.index);
    if (line.fields)
        out += ",\"fields\":" + json_object(*line.fields);
    if (line.entries)
        out += ",\"entries\":" + std::to_string(*line.entries);
    return out + "}\n";
}

} // namespace kxctl
