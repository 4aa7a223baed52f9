// Malformed records in every table the daemons read, each of which a daemon must skip
// with a line in its log, and go on.
#include "faults.h"

namespace chassis {
namespace {

// A malformed record in a table a daemon reads, and the line its log must show for it.
// Records of a table of one record are written once the chassis converged, one at a time,
// each followed by the good record again; the others before the first input, beside the
// good records.
struct BadRecord {
    int db;
    std::vector<std::vector<std::string>> write;
    std::string logged;
    std::vector<std::vector<std::string>> good = {}; // a single record: written back after
    int card = 0; // whose log; its store, or the global one for db 28
};

std::vector<BadRecord> bad_records(const std::vector<Card> &cards)
{
    const Card &c = cards[0];
    const std::string node = std::to_string(c.node), sub = std::to_string(c.subcards[0].node);
    const std::string big(1 << 20, 'v');
    auto good = [&](int card, Step step, int a = 0) {
        return input_command(cards[size_t(card)], {card, step, a}).second;
    };
    std::vector<BadRecord> bad = {
        {host_db,
         {{"HSET", "p_libpub.cap_table|/bad/int", "int32_value", "12x", "str_value", "x"}},
         "'p_libpub.cap_table|/bad/int' field 'int32_value': not an int32 ('12x')"},
        {host_db,
         {{"HSET", "p_libpub.cap_table|/bad/bool", "bool_value", "maybe", "str_value", "x"}},
         "'p_libpub.cap_table|/bad/bool' field 'bool_value': not a bool ('maybe')"},
        {host_db,
         {{"HSET", "p_libpub.cap_table|" + key_part(c.entries[0].url), "colour", "red"}},
         "field 'colour' is not a field of p_libpub.cap_table, ignored"},
        {host_db,
         {{"HSET", "p_libpub.cap_table|/bad%zz", "str_value", "x"}},
         "scan skips bad key 'p_libpub.cap_table|/bad%zz'"},
        {host_db,
         {{"HSET", "p_libpub.cap_table|/" + std::string(255, 'u'), "str_value", "x"}},
         "tmp->index->url len too long 256!"},
        {host_db,
         {{"SET", "p_libpub.cap_table|/bad/type", "x"}},
         "'p_libpub.cap_table|/bad/type': the server refused: WRONGTYPE"},
        {host_db,
         {{"HSET", "p_libpub.cap_table|/bad/big", "str_value", big}},
         "'p_libpub.cap_table|/bad/big': 1048585 bytes stored, more than the 65536"},
        {host_db,
         {{"HSET", "p_libpub.cap_subcard_table|x" + sub + "|/u", "str_value", "x"}},
         "scan skips bad key 'p_libpub.cap_subcard_table|x" + sub + "|/u'"},
        {host_db,
         {{"HSET", "p_libpub.cap_subcard_table|" + sub + "|/bad", "bool_value", "maybe"}},
         "'p_libpub.cap_subcard_table|" + sub + "|/bad' field 'bool_value': not a bool ('maybe')"},
        {host_db,
         {{"HSET", "p_libpub.cap_subcard_state|4000|7", "is_preinstall", "maybe"}},
         "'p_libpub.cap_subcard_state|4000|7' field 'is_preinstall': not a bool ('maybe')"},
        {host_db,
         {{"SET", "p_libpub.cap_subcard_state|4001|7", "x"}},
         "'p_libpub.cap_subcard_state|4001|7': the server refused: WRONGTYPE"},
        {global_db,
         {{"HSET", "s_frame.cap_del_fe_ready|" + node + "|x", "ready", "true"}},
         "skips bad key 's_frame.cap_del_fe_ready|" + node + "|x'"},
        {host_db,
         {{"SET", "p_libpub.cap_state", "\xff\xfe garbage"}},
         "the value does not unpack as p_libpub.cap_state",
         {good(0, Step::ready)}},
        {host_db, // renamed into place: a read follows a rename as a set
         {{"HSET", "cap_state.tmp", "ready", "true"},
          {"RENAME", "cap_state.tmp", "p_libpub.cap_state"}},
         "'p_libpub.cap_state': the server refused: WRONGTYPE",
         {{"DEL", "p_libpub.cap_state"}, good(0, Step::ready)}},
        {host_db,
         {{"SET", "p_libpub.cap_state", big}},
         "'p_libpub.cap_state': 1048576 bytes stored, more than the 4096",
         {good(0, Step::ready)}},
        {tunner_db,
         {{"HSET", "p_dev.dp_lib_my_info", "card_nodeid", "16x"}},
         "field 'card_nodeid': not an int32 ('16x')",
         {good(0, Step::identity)}},
        {tunner_db,
         {{"HSET", "p_dev.dp_lib_my_chss_info", "devid", "99999999999"}},
         "field 'devid': int32 out of range ('99999999999')",
         {good(0, Step::devid)}},
    };
    // A dependency module's record: of the first card that has one.
    for (int k = 0; k < static_cast<int>(cards.size()); ++k)
        if (!cards[size_t(k)].modules.empty()) {
            std::string key = "s_frame.cap_dep|" + key_part(cards[size_t(k)].modules[0]);
            bad.push_back({host_db,
                           {{"HSET", key, "ready", "maybe"}},
                           "'" + key + "' field 'ready': not a bool ('maybe')",
                           {good(k, Step::dep)},
                           k});
            break;
        }
    return bad;
}

bool write_bad(FaultRun &f, const BadRecord &b, const std::vector<std::vector<std::string>> &what)
{
    return f.run(b.db == global_db ? -1 : b.card, b.db, what);
}

bool malformed_before(FaultRun &f)
{
    if (f.cards[0].entries.empty() || f.cards[0].subcards.empty())
        return f.fault("--fault malformed needs entries and a subcard a card");
    for (const BadRecord &b : bad_records(f.cards)) {
        if (!b.good.empty())
            continue;
        if (!write_bad(f, b, b.write))
            return false;
        if (b.db == global_db) // no card gives it, and no daemon takes it away
            f.extra[b.write[0][1]] = {{b.write[0][2], b.write[0][3]}};
    }
    f.expect_inputs();
    return true;
}

bool malformed_after(FaultRun &f)
{
    auto bad = bad_records(f.cards);
    for (const BadRecord &b : bad)
        if (!b.good.empty() && (!write_bad(f, b, b.write) || !logged(f, b.card, b.logged, 10s) ||
                                !write_bad(f, b, b.good)))
            return false;
    for (const BadRecord &b : bad)
        if (b.good.empty() && !logged(f, b.card, b.logged, 10s))
            return false;
    printf("%zu malformed records, each logged\n", bad.size());
    return true;
}

} // namespace

const Fault malformed = {.name = "malformed",
                         .what = "malformed records in every table the daemons read",
                         .before = malformed_before,
                         .after_converge = malformed_after};

} // namespace chassis
