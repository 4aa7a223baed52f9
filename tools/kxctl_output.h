// kxctl's output: its usage, and one line per record, plain or JSON. Plain form:
//     [EVENT] KEY field=value ... [entries=N]
// A key or value is written bare when it is non-empty printable ASCII without blanks,
// '"' or backslash; otherwise in double quotes with \" \\ \n \r \t and \xNN escapes.
// JSON form, one object a line:
//     {"event":...,"key":...,"index":{...},"fields":{...},"entries":N}
// with only the members the line has. Numbers and bools are bare, strings JSON
// strings, bytes JSON strings with every byte outside printable ASCII as \u00NN.
#ifndef KXCTL_OUTPUT_H
#define KXCTL_OUTPUT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kxctl {

// What kxctl --help prints, ending with the database of every table.
std::string usage();

enum class Style { plain, json };

// How JSON writes a value.
enum class Kind { bare, string, bytes };

// One field: its name, its text as the store holds it, and its kind.
struct Value {
    std::string_view name;
    std::string text;
    Kind kind;
};

// One line of output.
struct Line {
    std::string_view event;                   // watch only: subscribed, set, hset, hdel, del
    std::string key;                          // the record's store key
    std::vector<Value> index;                 // JSON only; empty for a table without index
    std::optional<std::vector<Value>> fields; // none for a deletion or a key alone
    std::optional<long> entries;              // chassis only
};

// `line` as text, with its line feed.
std::string render(const Line &line, Style style);

// `s` as a JSON string.
std::string json_string(std::string_view s, Kind kind = Kind::string);

} // namespace kxctl

#endif
