// The fault table, what its entries need, and what they work with.
#include "faults.h"

#include <algorithm>

namespace chassis {
namespace {

// In the order they play when several are picked.
constexpr const Fault *faults[] = {&kill_at_boot,   &restart_global, &confine,        &kill_primary,
                                   &global_restart, &kill_daemon,    &client_kill,    &stop_global,
                                   &pause_global,   &maxmemory,      &read_only_user, &malformed,
                                   &shell_abuse};

// Why fault `f` cannot play on the global store `o` asks for, if it cannot.
std::optional<std::string> misfit(const Fault &f, const Options &o)
{
    const std::string name = f.name;
    if (f.needs == Store::sentinel && !o.sentinel)
        return name + " needs --sentinel";
    if (f.needs == Store::acl && !o.acl)
        return name + " needs --acl";
    if (f.needs == Store::one_server && o.sentinel)
        return name + " plays on one global Redis, not with --sentinel: kill-primary fails over";
    if (f.needs == Store::plain && (o.sentinel || o.acl))
        return name + " plays on one global Redis with its default user: not with --sentinel "
                      "or --acl";
    return std::nullopt;
}

} // namespace

std::optional<std::string> pick_faults(const Options &o, std::vector<const Fault *> &picked)
{
    for (const std::string &name : o.faults)
        if (std::ranges::none_of(faults, [&name](const Fault *f) { return name == f->name; }))
            return "no fault '" + name + "'";
    for (const Fault *f : faults) {
        if (std::ranges::find(o.faults, f->name) == o.faults.end())
            continue;
        if (auto why = misfit(*f, o))
            return why;
        picked.push_back(f);
    }
    return std::nullopt;
}

void list_faults(FILE *to)
{
    for (const Fault *f : faults)
        fprintf(to, "  %-15s %s\n", f->name, f->what);
}

bool FaultRun::fault(const std::string &what)
{
    chassis.fault(what);
    return false;
}

void FaultRun::expect_inputs()
{
    expected = expected_records(cards);
    expected.insert(extra.begin(), extra.end());
}

bool FaultRun::write(int card, Step step, int a, int b)
{
    std::string why;
    if (chassis.write_input({card, step, a, b}, &why))
        return true;
    return fault("card " + std::to_string(card + 1) + ": " + why);
}

bool FaultRun::run(int card, int db, const std::vector<std::vector<std::string>> &commands)
{
    Redis &r = card < 0 ? chassis.global_store() : chassis.card_store(card);
    std::string why;
    auto replies = r.pipeline(db, commands, &why);
    for (const Reply &reply : replies)
        if (reply->type == REDIS_REPLY_ERROR)
            why = reply->str;
    if (replies.size() == commands.size() && why.empty())
        return true;
    return fault(commands[0][0] + " on db " + std::to_string(db) + " of " +
                 (card < 0 ? "the global store" : "card " + std::to_string(card + 1) + "'s") +
                 " failed: " + why);
}

bool FaultRun::change_entry(int card, int j, int value)
{
    cards[static_cast<size_t>(card)].entries[static_cast<size_t>(j)].fields["int32_value"] =
        std::to_string(value);
    return write(card, Step::entry, j);
}

bool logged(FaultRun &f, int card, const std::string &text, std::chrono::milliseconds limit)
{
    auto seen = [&] { return host::read_file(f.log(card)).find(text) != std::string::npos; };
    if (wait_until(seen, limit))
        return true;
    return f.fault("card " + std::to_string(card + 1) + "'s log never showed: " + text);
}

} // namespace chassis
