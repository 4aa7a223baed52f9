// A database's endpoint and credentials from the environment, without a server: the
// database's own variables before the common ones, and every bad value refused with the
// variable, the form expected, and never the password.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "kx_endpoint.h"

namespace {

using Vars = std::map<std::string, std::string>;

// settings_for(2) with `vars` as the environment (KX_MOM_ left out of the names), as
// "where:port user password", or the code and the reason.
std::string settings(const Vars &vars)
{
    kx::Settings s;
    std::string why;
    const int32_t rc = kx::settings_for(
        2,
        [&](const std::string &name) -> const char * {
            auto it = vars.find(name.substr(7));
            return it == vars.end() ? nullptr : it->second.c_str();
        },
        &s, &why);
    if (rc != 0)
        return std::to_string(rc) + " " + why;
    std::string out = s.endpoint.where + ":" + std::to_string(s.endpoint.port);
    for (const kx::Endpoint &sentinel : s.endpoint.sentinels)
        out += " asking " + sentinel.where + ":" + std::to_string(sentinel.port);
    if (!s.endpoint.primary_of.empty())
        out += " for " + s.endpoint.primary_of;
    return out + " " + s.user.value_or("-") + " " + s.password.value_or("-");
}

TEST(Endpoint, EachDatabasesOwnVariablesComeFirstAndABadValueSaysWhy)
{
    const std::string dir = testing::TempDir(), good = dir + "/good", empty = dir + "/empty",
                      none = dir + "/none";
    std::ofstream(good) << "p4ss\r\nsecond line\n";
    std::ofstream(empty) << "\nx\n";
    const std::string sock = "unix:/r.sock: ";
    const std::string bad_addr = "-1007 bad KX_MOM_ADDR_2 '";
    const std::string expected = "': expected unix:/path/redis.sock or tcp:HOST:PORT";
    std::vector<std::pair<Vars, std::string>> cases = {
        {{}, "127.0.0.1:6379 - -"},
        {{{"ADDR", "unix:/r.sock"}, {"ADDR_2", "tcp:[::1]:7000"}}, "::1:7000 - -"},
        {{{"ADDR", "unix:/r.sock"}}, "/r.sock:0 - -"},
        {{{"ADDR", "sentinel:h:26379,unix:/s.sock/vek"}},
         ":0 asking h:26379 asking /s.sock:0 for vek - -"},
        {{{"ADDR", "sentinel:127.0.0.1:26379"}},
         "-1007 bad KX_MOM_ADDR 'sentinel:127.0.0.1:26379': expected "
         "sentinel:HOST:PORT[,HOST:PORT...]/NAME (a sentinel may be unix:/path)"},
        {{{"ADDR", "unix:/r.sock"}, {"USER_2", "card16"}},
         "-1007 " + sock + "KX_MOM_USER_2 is set without KX_MOM_PASSWORD_2"},
        {{{"ADDR", "unix:/r.sock"}, {"USER", "card16"}, {"PASSWORD_2", "x"}}, "/r.sock:0 card16 x"},
        {{{"ADDR", "unix:/r.sock"}, {"PASSWORD_2", "x"}, {"PASSWORD_FILE_2", good}},
         "-1007 " + sock + "KX_MOM_PASSWORD_2 and KX_MOM_PASSWORD_FILE_2 are both set"},
        {{{"ADDR", "unix:/r.sock"}, {"PASSWORD_FILE", none}},
         "-1007 " + sock + "cannot read KX_MOM_PASSWORD_FILE '" + none +
             "': No such file or directory"},
        {{{"ADDR", "unix:/r.sock"}, {"PASSWORD_FILE", empty}},
         "-1007 " + sock + "KX_MOM_PASSWORD_FILE '" + empty +
             "' holds no password on its first line"},
        {{{"ADDR", "unix:/r.sock"},
          {"USER", "nobody"},
          {"PASSWORD", "n0t-it"},
          {"USER_2", "card16"},
          {"PASSWORD_FILE_2", good}},
         "/r.sock:0 card16 p4ss"},
    };
    for (std::string bad : {"udp:127.0.0.1:6379", "tcp:127.0.0.1", "tcp::6379", "tcp:[]:6379",
                            "tcp:127.0.0.1:0", "tcp:127.0.0.1:65536", "tcp:127.0.0.1:63x", "unix:"})
        cases.push_back({{{"ADDR_2", bad}}, bad_addr + bad + expected});
    for (const auto &[vars, want] : cases)
        EXPECT_EQ(settings(vars), want);
}

} // namespace
