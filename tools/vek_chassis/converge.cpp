// Database 28 converging: watched until it is exact, shown as it goes, and what still
// differs from what the inputs give.
#include "vek_chassis.h"

#include <algorithm>

#include <sys/ioctl.h>

namespace chassis {
namespace {

struct NodeView {
    bool ready = false;
    std::string devid = "-";
    int entries = 0;
};

// The table name and node of a chassis key ("s_frame.cap_glb_table|16|/fe/l2").
std::optional<std::pair<std::string, int>> table_and_node(const std::string &key)
{
    size_t bar = key.find('|');
    if (bar == std::string::npos)
        return std::nullopt;
    size_t end = key.find('|', bar + 1);
    auto node = number(key.substr(bar + 1, end == std::string::npos ? end : end - bar - 1).c_str(),
                       INT32_MIN, INT32_MAX);
    if (!node)
        return std::nullopt;
    return std::pair(key.substr(0, bar), static_cast<int>(*node));
}

// What db 28 says of every node, by node.
std::map<int, NodeView> nodes_of(const Records &records)
{
    std::map<int, NodeView> nodes;
    for (const auto &[key, fields] : records) {
        auto tn = table_and_node(key);
        if (!tn)
            continue;
        NodeView &v = nodes[tn->second];
        if (tn->first == "s_frame.cap_fe_ready" || tn->first == "s_frame.cap_subcard_ready") {
            v.ready = fields.contains("ready") && fields.at("ready") == "true";
            if (fields.contains("devid"))
                v.devid = fields.at("devid");
        } else {
            ++v.entries;
        }
    }
    return nodes;
}

// `s` bare when it is one printable word, else quoted.
std::string quoted(const std::string &s)
{
    bool bare = !s.empty() &&
                std::ranges::all_of(s, [](char c) { return c > ' ' && c < 0x7f && c != '"'; });
    if (bare)
        return s;
    std::string out = "\"";
    for (char c : s)
        out += c == '"' ? "\\\"" : c == '\\' ? "\\\\" : std::string(1, c);
    return out + "\"";
}

std::string record_text(const std::string &key, const Fields &fields)
{
    std::string out = quoted(key);
    for (const auto &[name, value] : fields)
        out += " " + name + "=" + quoted(value);
    return out;
}

} // namespace

size_t matching(const Records &want, const Records &have)
{
    return static_cast<size_t>(std::ranges::count_if(want, [&](const auto &kv) {
        auto it = have.find(kv.first);
        return it != have.end() && it->second == kv.second;
    }));
}

std::vector<std::string> difference(const Records &want, const Records &have)
{
    std::vector<std::string> lines;
    for (const auto &[key, fields] : want) {
        auto it = have.find(key);
        if (it == have.end())
            lines.push_back("missing  " + record_text(key, fields));
        else if (it->second != fields)
            lines.push_back("differs  " + record_text(key, fields) + "\n   found  " +
                            record_text(key, it->second));
    }
    for (const auto &[key, fields] : have)
        if (!want.contains(key))
            lines.push_back("stray    " + record_text(key, fields));
    return lines;
}

void print_difference(const Records &expected, const Records &have)
{
    auto lines = difference(expected, have);
    constexpr size_t most = 40;
    for (size_t i = 0; i < lines.size() && i < most; ++i)
        printf("  %s\n", lines[i].c_str());
    if (lines.size() > most)
        printf("  ... and %zu more\n", lines.size() - most);
}

void View::begin()
{
    if (tty_)
        fputs("\033[2J", stdout);
}

void View::show(const Records &have, long long ms, bool last)
{
    size_t ok = matching(expected_, have);
    if (!tty_) {
        if (ok != last_ok_ && (last || ms >= next_line_ms_)) {
            printf("%6.2f s  db 28: %zu of %zu records as expected, %zu records in all\n", ms / 1e3,
                   ok, expected_.size(), have.size());
            last_ok_ = ok;
            next_line_ms_ = ms + 1000;
        }
        return;
    }
    if (!last && ms < next_line_ms_)
        return;
    next_line_ms_ = ms + 100;
    winsize ws{};
    int rows = ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 4 ? ws.ws_row : 24;
    std::string out = "\033[H"; // and the last frame in full, whatever the height
    char line[256];
    snprintf(line, sizeof line,
             "vek_chassis: %zu cards, seed %llu, %.2f s: db 28 holds %zu of %zu records",
             cards_.size(), static_cast<unsigned long long>(seed_), ms / 1e3, ok, expected_.size());
    out += std::string(line) +
           (have.size() > ok ? " (+" + std::to_string(have.size() - ok) + " other)" : "");
    out += "\033[K\n card  node type devid ready entries   subcards (node ready entries)\033[K\n";
    auto nodes = nodes_of(have);
    int shown_rows = 0;
    for (const Card &c : cards_) {
        if (!last && ++shown_rows > rows - 4) {
            out += "  ... " + std::to_string(cards_.size() - static_cast<size_t>(shown_rows) + 1) +
                   " more cards\033[K\n";
            break;
        }
        const NodeView &v = nodes[c.node];
        snprintf(line, sizeof line, "%5d %5d %4d %5s %5s %3d/%-3zu", c.number, c.node, c.type,
                 v.devid.c_str(), v.ready ? "yes" : "-", v.entries, c.entries.size());
        out += line;
        for (const Subcard &s : c.subcards) {
            const NodeView &sv = nodes[s.node];
            snprintf(line, sizeof line, "  %5d %3s %d/%zu", s.node, sv.ready ? "yes" : "-",
                     sv.entries, s.entries.size());
            out += line;
        }
        out += "\033[K\n";
    }
    fputs((out + "\033[J").c_str(), stdout);
    fflush(stdout);
}

Outcome converge(Chassis &chassis, View &view, const Records &expected, Clock::time_point since,
                 int timeout_s, Records &have)
{
    view.begin();
    auto deadline = since + std::chrono::seconds(timeout_s);
    have.clear();
    for (long long read_ms = -1;;) {
        chassis.reap();
        if (g_signal)
            return Outcome::interrupted;
        if (chassis.broken())
            return Outcome::failed;
        // db 28 is read whole when its size says it may be done, or for the view: on a big
        // chassis a whole read is work for the store whose work is being measured.
        std::string why;
        long long ms = ms_since(since);
        bool fresh = chassis.global_size(&why) == expected.size() || read_ms < 0 ||
                     ms - read_ms >= view.refresh_ms();
        if (auto records = fresh ? chassis.read_global(&why) : std::nullopt) {
            have = std::move(*records);
            read_ms = ms;
        }
        bool done = fresh && have == expected;
        view.show(have, ms, done);
        if (done)
            return Outcome::converged;
        if (Clock::now() > deadline)
            return Outcome::timed_out;
        nap(20ms);
    }
}

} // namespace chassis
