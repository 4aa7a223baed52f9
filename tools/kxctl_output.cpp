// kxctl's usage and output lines (the forms are described in kxctl_output.h).
#include "kxctl_output.h"

#include <algorithm>
#include <cstdio>

#include "kx_mom.h"

namespace kxctl {

namespace {

constexpr const char *usage_head =
    "usage: kxctl [-n DB] [--json] COMMAND ...\n"
    "Commands, each with an example:\n"
    "  get   TABLE index=value ...              print one record\n"
    "        kxctl get p_libpub.cap_table url=/fe/l3/ecmp\n"
    "  set   TABLE index=value ... field=value ...  write exactly the fields given\n"
    "        kxctl set s_frame.cap_dep module=fib_mgr ready=true\n"
    "  del   TABLE index=value ...              delete one record\n"
    "        kxctl del s_frame.cap_del_fe_ready node=16 config_dev_type=5\n"
    "  scan  TABLE [index=value ...]            print every record (matching the index given)\n"
    "        kxctl scan s_frame.cap_glb_table node=16\n"
    "  watch TABLE [index=value ...]            print every change until interrupted\n"
    "        kxctl watch s_frame.cap_fe_ready\n"
    "  chassis                                  every card's and subcard's ready record with\n"
    "                                           its number of global capability entries\n"
    "        kxctl --json chassis\n"
    "  tables                                   list tables and fields\n"
    "        kxctl tables\n"
    "Index fields are given by name (url=, node=, module=...); every one is needed by get,\n"
    "set and del. A name that the index and the record share names the record's field;\n"
    "index.NAME names the index field (s_frame.cap_fe_ready node=16\n"
    "index.config_dev_type=5 config_dev_type=7). Values: integers in decimal, bools\n"
    "true/false, enums by number or name, strings as written. For the whole-value table\n"
    "p_libpub.cap_state, set writes the whole record (fields not given are defaults).\n"
    "chassis lists the cards, then the subcards, by node; a node with global entries but no\n"
    "ready record is listed by its entries' key (s_frame.cap_glb_table|16 entries=3). The\n"
    "chassis database does not say which card holds a subcard.\n"
    "The store is $KX_MOM_ADDR (or $KX_MOM_ADDR_<db>), e.g. unix:/run/redis.sock,\n"
    "tcp:127.0.0.1:6379 or sentinel:10.0.0.1:26379,10.0.0.2:26379/vek_global (the primary\n"
    "the sentinels name), as $KX_MOM_USER with $KX_MOM_PASSWORD or the first line of\n"
    "$KX_MOM_PASSWORD_FILE (each also as ..._<db>).\n"
    "Output: one record a line, `KEY field=value ...`, or one JSON object with --json.\n"
    "Exit status: 0 done, 1 store failure or no such record, 2 bad usage or input.\n";

} // namespace

std::string usage()
{
    std::string text =
        std::string(usage_head) +
        "DB defaults to the table's own database (chassis: " + std::to_string(KX_MOM_DB_CE_GLOBAL) +
        "):\n";
    for (const kx_mom_table_home &home : kx_mom_table_homes)
        text += (home.db < 10 ? "   " : "  ") + std::to_string(home.db) + "  " + home.table + "\n";
    return text;
}

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
