// A card on two servers as on a chassis: the card's own (db 1 and db 3) and the
// chassis-global one (db 28).
// - Its stores go out of reach and come back: what changed meanwhile is published or
//   withdrawn once; what did not costs the chassis store no write; what the daemon could
//   not write or read meanwhile is done once it is back.
// - It reaches the chassis store as the user deploy/vek_cap-acl writes for it: it
//   publishes and rewrites itself on a notice, and may do nothing else.
#include <algorithm>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_redis.h"

using namespace testsupport;
using Lines = std::vector<std::string>;

namespace {

constexpr int kEntries = 100;

std::string ready_record(int slot)
{
    return "s_frame.cap_fe_ready|16|5 ready=true config_dev_type=5 devid=7 slotid=" +
           std::to_string(slot) + " sslotid=1 node_type=3 real_time=true";
}

struct Card {
    TempDir root;
    RedisServer local, global;
    std::unique_ptr<Process> daemon;
    Env env = {{"KX_ROOT", root.path()},
               {"KX_MOM_ADDR", local.addr()},
               {"KX_MOM_ADDR_28", global.addr()},
               {"KX_LOG", root / "vek_cap.log"}};

    std::string log() const { return read_file(root / "vek_cap.log"); }
    long logged(const std::string &text) const
    {
        const std::string all = log();
        long n = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
            ++n;
        return n;
    }
    // Subcard `node` with entries /s/0 and /s/1, announced.
    void subcard(int node)
    {
        const std::string n = std::to_string(node);
        for (int j = 0; j < 2; ++j)
            local.cli(3, {"HSET", "p_libpub.cap_subcard_table|" + n + "|/s/" + std::to_string(j),
                          "int32_value", std::to_string(j)});
        local.cli(3, {"HSET", "p_libpub.cap_subcard_state|" + n + "|7", "ready", "true"});
    }
    // Every input of a card with kEntries entries and subcard 20, then the daemon.
    void boot()
    {
        write_file(root / "etc/cap_cfg/cap_dep/fe/fib_mgr", "");
        write_file(root / "data/.tavo/vsd/0/sw-frame/cap/vek_cap/vek_cap_dbg.txt", "5\n");
        local.cli(1, {"HSET", "p_dev.dp_lib_my_info", "card_nodeid", "16", "card_type", "5",
                      "slotid", "3", "sslotid", "1", "dm_my_node_type", "3"});
        local.cli(1, {"HSET", "p_dev.dp_lib_my_chss_info", "devid", "7"});
        local.cli(3, {"HSET", "s_frame.cap_dep|fib_mgr", "ready", "true"});
        local.cli(3, {"EVAL",
                      "for i = 1, ARGV[1] do redis.call('HSET', 'p_libpub.cap_table|/e/' .. i, "
                      "'int32_value', i) end",
                      "0", std::to_string(kEntries)});
        subcard(20);
        local.cli(3, {"SET", "p_libpub.cap_state", "\x28\x01"});
        daemon = std::make_unique<Process>(Lines{VEK_CAP_BIN}, env, root.path(), "vek_cap");
    }
};

Lines published()
{
    Lines out = {ready_record(3), "s_frame.cap_subcard_glb_table|20|/s/0 int32_value=0",
                 "s_frame.cap_subcard_glb_table|20|/s/1 int32_value=1",
                 "s_frame.cap_subcard_ready|20 ready=true"};
    for (int i = 1; i <= kEntries; ++i)
        out.push_back("s_frame.cap_glb_table|16|/e/" + std::to_string(i) +
                      " int32_value=" + std::to_string(i));
    std::ranges::sort(out);
    return out;
}

bool booted(const Card &card)
{
    return wait_for([&] {
        return card.global.dump(28) == published() &&
               card.logged("cap_del_fe_ready scan over.") == 1;
    });
}

// `from` with each line starting with `key` replaced by `lines`.
Lines replaced(Lines from, const std::string &key, const Lines &lines)
{
    std::erase_if(from, [&](const std::string &l) { return l.starts_with(key); });
    from.insert(from.end(), lines.begin(), lines.end());
    std::ranges::sort(from);
    return from;
}

TEST(Recovery, WhatChangedWhileAStoreWasAwayIsDoneOnceAndNothingElse)
{
    const std::string sub20 = "s_frame.cap_subcard", sub21 = "s_frame.cap_subcard_glb_table|21|";
    const Lines twenty_one = {sub21 + "/s/0 int32_value=0", sub21 + "/s/1 int32_value=1",
                              "s_frame.cap_subcard_ready|21 ready=true"};
    const long publication = kEntries + 1;
    auto nothing = [](Card &) {};
    struct Case {
        const char *what;
        bool card_away, chassis_away;
        std::function<void(Card &)> meanwhile;
        const char *handled; // the daemon's line once it has acted on it, while away
        Lines expected;
        long hset, del; // what the chassis store gets once all is back
    };
    const Case cases[] = {
        {"the card store lost, nothing changed", true, false, nothing, "", published(), 0, 0},
        {"the chassis store lost, nothing changed", false, true, nothing, "", published(), 0, 0},
        {"both lost, nothing changed", true, true, nothing, "", published(), 0, 0},
        {"the identity changed while the card store was away", true, false,
         [](Card &c) {
             c.local.cli(1, {"HSET", "p_dev.dp_lib_my_info", "slotid", "4"});
         },
         "", replaced(published(), "s_frame.cap_fe_ready", {ready_record(4)}), publication, 0},
        {"an entry changed, the ready record written again while the card store was away", true,
         false,
         [](Card &c) {
             c.local.cli(3, {"HSET", "p_libpub.cap_table|/e/1", "int32_value", "-1"});
             c.local.cli(3, {"SET", "p_libpub.cap_state", "\x28\x01"});
         },
         "",
         replaced(published(), "s_frame.cap_glb_table|16|/e/1 ",
                  {"s_frame.cap_glb_table|16|/e/1 int32_value=-1"}),
         publication, 0},
        {"a subcard gone, another come while the card store was away", true, false,
         [](Card &c) {
             c.local.cli(3, {"DEL", "p_libpub.cap_subcard_state|20|7"});
             c.subcard(21);
         },
         "", replaced(published(), sub20, twenty_one), 3, 3},
        {"a deletion notice written while the chassis store was away", false, true,
         [](Card &c) {
             c.global.cli(28, {"HSET", "s_frame.cap_del_fe_ready|16|5", "ready", "1"});
         },
         "", published(), publication, 1},
        {"the card published while the chassis store was away", false, true,
         [](Card &c) {
             c.local.cli(3, {"SET", "p_libpub.cap_state", "\x28\x01"});
         },
         "ready=1 failed rv -1001", published(), publication, 0},
        {"a subcard gone while the chassis store was away", false, true,
         [](Card &c) {
             c.local.cli(3, {"DEL", "p_libpub.cap_subcard_state|20|7"});
         },
         "del scard_nodeid 0x14 state failed", replaced(published(), sub20, {}), 0, 4},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Card card;
        card.boot();
        ASSERT_TRUE(booted(card)) << card.log();
        const std::vector<RedisServer *> away = {c.card_away ? &card.local : nullptr,
                                                 c.chassis_away ? &card.global : nullptr};
        const long dbs = 2 * c.card_away + c.chassis_away, lost = card.logged(" lost: ");
        for (RedisServer *server : away)
            if (server)
                server->away(true);
        ASSERT_TRUE(wait_for([&] { return card.logged(" lost: ") == lost + dbs; }));
        c.meanwhile(card);
        ASSERT_TRUE(wait_for([&] { return card.logged(c.handled) > 0; })) << card.log();
        card.global.cli(0, {"CONFIG", "RESETSTAT"});
        for (RedisServer *server : away)
            if (server)
                server->away(false);
        ASSERT_TRUE(wait_for([&] { return card.logged("subscriptions followed again") == dbs; }))
            << card.log();
        EXPECT_TRUE(wait_for([&] { return card.global.dump(28) == c.expected; })) << card.log();
        EXPECT_EQ(card.global.calls("hset"), c.hset);
        EXPECT_EQ(card.global.calls("del"), c.del);
    }
}

// The card's user as deploy/vek_cap-acl writes it, for a chassis of card 16 (type 5, with
// subcard 20) and card 32: its daemon publishes and honours its notice; the user may not
// read the server's settings, list, empty, publish, nor touch any record of card 32.
TEST(Confinement, ACardsUserPublishesItAndMayDoNothingElse)
{
    Card card;
    write_file(card.root / "chassis.txt", "card 16 5 20\ncard 32 6\n");
    const RunResult acl = run({VEK_CAP_ACL, card.root / "chassis.txt", card.root / "secrets"});
    ASSERT_EQ(acl.status, 0) << acl.err;
    std::istringstream users(acl.out);
    for (std::string line; std::getline(users, line);) {
        std::istringstream words(line);
        Lines args = {"ACL", "SETUSER"};
        std::string word;
        words >> word; // "user"
        while (words >> word)
            args.push_back(word);
        if (args[2] != "default") // this test's own clients are the default user
            card.global.cli(0, args);
    }
    card.env["KX_MOM_USER_28"] = "card16";
    card.env["KX_MOM_PASSWORD_FILE_28"] = card.root / "secrets/card16";
    card.boot();
    ASSERT_TRUE(booted(card)) << card.log();
    EXPECT_EQ(card.logged("this user may not read the server's keyspace notification flags"), 1);
    card.global.cli(28, {"HSET", "s_frame.cap_del_fe_ready|16|5", "ready", "1"});
    EXPECT_TRUE(wait_for([&] { return card.logged("rewrite my cap, node 16") == 1; }));
    EXPECT_TRUE(wait_for([&] { return card.global.dump(28) == published(); })) << card.log();

    const std::string password = read_file(card.root / "secrets/card16");
    const Lines refused[] = {
        {"CONFIG", "GET", "requirepass"},
        {"ACL", "LIST"},
        {"KEYS", "*"},
        {"FLUSHDB"},
        {"PUBLISH", "__keyspace@28__:s_frame.cap_fe_ready|32|6", "hset"},
        {"HSET", "s_frame.cap_glb_table|32|/e/1", "int32_value", "1"},
        {"HSET", "s_frame.cap_fe_ready|32|6", "ready", "true"},
        {"HSET", "s_frame.cap_fe_ready|16|6", "ready", "true"},
        {"HSET", "s_frame.cap_subcard_ready|21", "ready", "true"},
        {"DEL", "s_frame.cap_del_fe_ready|32|6"},
        {"DEL", "s_frame.cap_subcard_glb_table|160|/s/0"},
    };
    for (const Lines &command : refused) {
        Lines argv = {"redis-cli",
                      "-s",
                      card.global.socket(),
                      "--user",
                      "card16",
                      "--pass",
                      password.substr(0, password.find('\n')),
                      "--no-auth-warning",
                      "-n",
                      "28"};
        argv.insert(argv.end(), command.begin(), command.end());
        EXPECT_TRUE(run(argv).out.starts_with("NOPERM")) << command[0] << " " << command.back();
    }
    EXPECT_EQ(card.global.dump(28), published());
}

} // namespace
