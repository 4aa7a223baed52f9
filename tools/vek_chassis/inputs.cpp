// The chassis's inputs: the cards drawn from the seed, the order their services write
// them in, and what database 28 must then hold.
#include "vek_chassis.h"

namespace chassis {

std::string key_part(std::string_view s)
{
    std::string out;
    for (char c : s)
        out += c == '%' ? "%25" : c == '|' ? "%7C" : std::string(1, c);
    return out;
}

namespace {

Entry make_entry(Rng &rng, int j, bool card)
{
    static constexpr const char *areas[] = {"l2", "l3/ecmp", "acl", "qos", "port|speed", "load%"};
    static constexpr const char *texts[] = {"", "on", "ingress,egress", "a b", "x|y"};
    Entry e;
    e.url = std::string("/fe/") + areas[rng.below(std::size(areas))] + "/" + std::to_string(j);
    uint64_t present = 1 + rng.below(7); // at least one field that the chassis sees
    if (present & 1)
        e.fields["bool_value"] = rng.below(2) ? "true" : "false";
    if (present & 2)
        e.fields["int32_value"] = std::to_string(static_cast<int>(rng.below(200001)) - 100000);
    if (present & 4)
        e.fields["str_value"] = texts[rng.below(std::size(texts))];
    e.fields["pri"] = std::to_string(rng.below(8));
    if (card && rng.below(2))
        e.fields["state"] = "true";
    return e;
}

// The fields of an entry that reach db 28.
Fields global_fields(const Entry &e)
{
    Fields f = e.fields;
    f.erase("pri");
    f.erase("state");
    return f;
}

std::vector<std::string> hset(std::string key, const Fields &fields)
{
    std::vector<std::string> args = {"HSET", std::move(key)};
    for (const auto &[name, value] : fields)
        args.insert(args.end(), {name, value});
    return args;
}

} // namespace

std::vector<Card> make_cards(const Options &o, Rng &rng)
{
    static constexpr int card_types[] = {5, 6, 9};
    static constexpr int subcard_types[] = {7, 8};
    std::vector<Card> cards;
    for (int k = 1; k <= o.cards; ++k) {
        Card c{k, 16 * k, card_types[rng.below(std::size(card_types))], {}, {}, {}};
        std::vector<std::string> modules = {"fib_mgr", "acl_mgr", "qos_mgr", "mpls_mgr", "stp_mgr"};
        rng.shuffle(modules);
        c.modules.assign(modules.begin(), modules.begin() + static_cast<long>(rng.below(4)));
        for (int j = 0; j < o.entries; ++j)
            c.entries.push_back(make_entry(rng, j, true));
        for (int s = 1; s <= o.subcards; ++s) {
            Subcard sc{c.node + s, subcard_types[rng.below(std::size(subcard_types))], {}};
            for (int j = 0; j < o.subcard_entries; ++j)
                sc.entries.push_back(make_entry(rng, j, false));
            c.subcards.push_back(std::move(sc));
        }
        cards.push_back(std::move(c));
    }
    return cards;
}

Records expected_records(const std::vector<Card> &cards)
{
    Records r;
    for (const Card &c : cards) {
        std::string node = std::to_string(c.node);
        r["s_frame.cap_fe_ready|" + node + "|" + std::to_string(c.type)] = {
            {"ready", "true"},
            {"config_dev_type", std::to_string(c.type)},
            {"devid", std::to_string(chassis_devid)},
            {"slotid", std::to_string(c.number)},
            {"sslotid", "0"},
            {"node_type", std::to_string(node_type_lc)},
            {"real_time", "true"}};
        for (const Entry &e : c.entries)
            r["s_frame.cap_glb_table|" + node + "|" + key_part(e.url)] = global_fields(e);
        for (const Subcard &s : c.subcards) {
            r["s_frame.cap_subcard_ready|" + std::to_string(s.node)] = {{"ready", "true"}};
            for (const Entry &e : s.entries)
                r["s_frame.cap_subcard_glb_table|" + std::to_string(s.node) + "|" +
                  key_part(e.url)] = global_fields(e);
        }
    }
    return r;
}

// A capability service declares its table complete after writing it, and a subcard
// appears after its entries: within those groups the gate comes last, everything else
// is free.
std::vector<Input> boot_order(const std::vector<Card> &cards, Rng &rng)
{
    std::vector<Input> in;
    for (int i = 0; i < static_cast<int>(cards.size()); ++i) {
        const Card &c = cards[static_cast<size_t>(i)];
        for (Step s : {Step::start, Step::identity, Step::devid, Step::ready})
            in.push_back({i, s});
        for (int j = 0; j < static_cast<int>(c.entries.size()); ++j)
            in.push_back({i, Step::entry, j});
        for (int m = 0; m < static_cast<int>(c.modules.size()); ++m)
            in.push_back({i, Step::dep, m});
        for (int s = 0; s < static_cast<int>(c.subcards.size()); ++s) {
            in.push_back({i, Step::subcard_state, s});
            for (int j = 0; j < static_cast<int>(c.subcards[static_cast<size_t>(s)].entries.size());
                 ++j)
                in.push_back({i, Step::subcard_entry, s, j});
        }
    }
    rng.shuffle(in);
    // The gate of a group takes the group's last place.
    auto gate_last = [&in](auto in_group, auto is_gate) {
        size_t gate = in.size(), last = 0;
        for (size_t p = 0; p < in.size(); ++p)
            if (in_group(in[p])) {
                last = p;
                gate = is_gate(in[p]) ? p : gate;
            }
        if (gate < in.size())
            std::swap(in[gate], in[last]);
    };
    for (int i = 0; i < static_cast<int>(cards.size()); ++i) {
        gate_last(
            [i](const Input &x) {
                return x.card == i && (x.step == Step::entry || x.step == Step::ready);
            },
            [](const Input &x) { return x.step == Step::ready; });
        for (int s = 0; s < static_cast<int>(cards[static_cast<size_t>(i)].subcards.size()); ++s)
            gate_last(
                [i, s](const Input &x) {
                    return x.card == i && x.a == s &&
                           (x.step == Step::subcard_entry || x.step == Step::subcard_state);
                },
                [](const Input &x) { return x.step == Step::subcard_state; });
    }
    return in;
}

std::pair<int, std::vector<std::string>> input_command(const Card &c, const Input &in)
{
    auto text = [](int n) { return std::to_string(n); };
    const Subcard *sub = in.step == Step::subcard_entry || in.step == Step::subcard_state
                             ? &c.subcards[static_cast<size_t>(in.a)]
                             : nullptr;
    switch (in.step) {
    case Step::identity:
        return {tunner_db, hset("p_dev.dp_lib_my_info", {{"card_nodeid", text(c.node)},
                                                         {"card_type", text(c.type)},
                                                         {"slotid", text(c.number)},
                                                         {"sslotid", "0"},
                                                         {"dm_my_node_type", text(node_type_lc)}})};
    case Step::devid:
        return {tunner_db, hset("p_dev.dp_lib_my_chss_info",
                                {{"devid", text(chassis_devid)}, {"dev_desc", "vek_chassis"}})};
    case Step::entry: {
        const Entry &e = c.entries[static_cast<size_t>(in.a)];
        return {host_db, hset("p_libpub.cap_table|" + key_part(e.url), e.fields)};
    }
    case Step::ready: // the packed record: field 5 (ready), varint 1
        return {host_db, {"SET", "p_libpub.cap_state", "\x28\x01"}};
    case Step::dep:
        return {host_db, hset("s_frame.cap_dep|" + key_part(c.modules[static_cast<size_t>(in.a)]),
                              {{"ready", "true"}})};
    case Step::subcard_entry: {
        const Entry &e = sub->entries[static_cast<size_t>(in.b)];
        return {host_db,
                hset("p_libpub.cap_subcard_table|" + text(sub->node) + "|" + key_part(e.url),
                     e.fields)};
    }
    case Step::subcard_state:
        return {host_db,
                hset("p_libpub.cap_subcard_state|" + text(sub->node) + "|" + text(sub->type),
                     {{"ready", "true"}})};
    case Step::start:
    case Step::kill:
        break;
    }
    return {};
}

} // namespace chassis
