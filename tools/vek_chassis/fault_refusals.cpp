// Faults of writes the global store refuses: for lack of memory, to a user that may only
// read, and to a card's user that touches another card's records.
#include "faults.h"

#include <fstream>

namespace chassis {
namespace {

// Writes refused by the global store from the first input on.
bool refuse(FaultRun &f, bool acl)
{
    return acl ? f.run(-1, 0, {{"ACL", "SETUSER", "default", "resetkeys", "%R~*"}})
               : f.run(-1, 0,
                       {{"CONFIG", "SET", "maxmemory-policy", "noeviction"},
                        {"CONFIG", "SET", "maxmemory", "1"}});
}

// Each refused write is logged with its code; once they are allowed again, one more
// input of each card publishes it whole.
bool refused_then_allowed(FaultRun &f, bool acl)
{
    for (int c = 0; c < f.chassis.cards(); ++c) {
        if (!logged(f, c, "ready=1 failed rv -1006") ||
            !logged(f, c, acl ? "the server refused: NOPERM" : "the server refused: OOM"))
            return false;
        for (const Subcard &s : f.cards[size_t(c)].subcards)
            if (!logged(f, c, "node " + std::to_string(s.node) + ", ready=1 failed rv: -1006"))
                return false;
    }
    printf("every card's writes were refused and logged with code -1006\n");
    if (!(acl ? f.run(-1, 0, {{"ACL", "SETUSER", "default", "resetkeys", "~*"}})
              : f.run(-1, 0, {{"CONFIG", "SET", "maxmemory", "0"}})))
        return false;
    for (int c = 0; c < f.chassis.cards(); ++c) {
        if (!f.write(c, Step::ready))
            return false;
        for (int s = 0; s < static_cast<int>(f.cards[size_t(c)].subcards.size()); ++s)
            if (!f.write(c, Step::subcard_state, s))
                return false;
    }
    return true;
}

// Card 1's user may change none of card 2's records, nor node 160's when it is node 16,
// nor a ready record of a type not its own; a client without a user may change nothing.
// db 28 is unchanged after that. The operator may: it deletes one of card 2's entries and
// writes card 2's deletion notice, which card 2 answers, as its own user, by writing
// itself again and removing the notice.
bool refuse_other_cards(FaultRun &f)
{
    printf("card 1's user tries to change card 2's records; the operator deletes one of card 2's "
           "entries and writes its deletion notice\n");
    const Card &a = f.cards[0], &b = f.cards[1];
    std::string an = std::to_string(a.node), bn = std::to_string(b.node);
    std::string sub = std::to_string(b.node + 1), type = std::to_string(b.type);
    std::string entry = "s_frame.cap_glb_table|" + bn + "|" +
                        (b.entries.empty() ? "/x" : key_part(b.entries[0].url));
    std::string notice = "s_frame.cap_del_fe_ready|" + bn + "|" + type;
    const std::vector<std::vector<std::string>> changes = {
        {"HSET", entry, "bool_value", "false"},
        {"DEL", entry},
        {"HSET", "s_frame.cap_glb_table|" + an + "0|/x", "bool_value", "true"},
        {"HSET", "s_frame.cap_fe_ready|" + bn + "|" + type, "ready", "false"},
        {"DEL", "s_frame.cap_fe_ready|" + bn + "|" + type},
        {"HSET", "s_frame.cap_fe_ready|" + an + "|" + std::to_string(a.type + 1), "ready", "true"},
        {"HSET", notice, "ready", "true"},
        {"HSET", "s_frame.cap_subcard_glb_table|" + sub + "|/x", "bool_value", "true"},
        {"DEL", "s_frame.cap_subcard_ready|" + sub},
    };
    Redis card = f.chassis.as_user("card" + an), nobody(f.chassis.global_socket());
    std::string why;
    auto outcome = [&why](Redis &as, const std::vector<std::string> &change) {
        return as.command(global_db, change, &why) ? std::string("done") : why;
    };
    for (const auto &change : changes) {
        std::string as_card = outcome(card, change), as_nobody = outcome(nobody, change);
        if (!as_card.starts_with("NOPERM") || !as_nobody.starts_with("NOAUTH"))
            f.fault(change[0] + " " + change[1] + ": card " + std::to_string(a.number) +
                    "'s user got '" + as_card + "', no user '" + as_nobody + "'");
    }
    auto after = f.chassis.read_global(&why);
    if (!after || *after != f.expected)
        f.fault("db 28 changed when card " + std::to_string(a.number) +
                "'s user was refused: " + (after ? difference(f.expected, *after).front() : why));
    return f.run(-1, global_db, {{"DEL", entry}, {"HSET", notice, "ready", "true"}});
}

// A daemon keeping to its own records never meets a refusal, not even in a read of
// another card's (every card reads a deletion notice when one appears).
bool no_daemon_refused(FaultRun &f)
{
    bool ok = true;
    for (int c = 0; c < f.chassis.cards(); ++c) {
        std::ifstream out(f.chassis.root(c) + "/vek_cap.out");
        for (std::string line; std::getline(out, line);)
            if (line.find("NOPERM") != std::string::npos) {
                ok = f.fault("card " + std::to_string(c + 1) + "'s vek_cap was refused: " + line);
                break;
            }
    }
    return ok;
}

} // namespace

const Fault confine = {
    .name = "confine",
    .what = "card 1's user refused every change to card 2's records, the operator not (--acl)",
    .needs = Store::acl,
    .after_converge = refuse_other_cards,
    .settled = no_daemon_refused};
const Fault maxmemory = {.name = "maxmemory",
                         .what = "the global Redis refuses writes (maxmemory), then allows them",
                         .before = [](FaultRun &f) { return refuse(f, false); },
                         .after_play = [](FaultRun &f) { return refused_then_allowed(f, false); }};
const Fault read_only_user = {
    .name = "read-only-user",
    .what = "the global Redis's user may only read, then may write",
    .before = [](FaultRun &f) { return refuse(f, true); },
    .after_play = [](FaultRun &f) { return refused_then_allowed(f, true); }};

} // namespace chassis
