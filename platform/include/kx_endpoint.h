// Where a database's server is and whom to connect to it as, from the environment
// (KX_MOM_ADDR[_<db>], KX_MOM_USER[_<db>], KX_MOM_PASSWORD[_<db>],
// KX_MOM_PASSWORD_FILE[_<db>]). Parsing only: nothing here connects.
#ifndef KX_ENDPOINT_H
#define KX_ENDPOINT_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx {

// unix:/path, tcp:HOST:PORT, or sentinel:HOST:PORT[,HOST:PORT...]/NAME. A sentinel endpoint
// names the sentinels to ask and the primary to ask them for; `where` and `port` are then
// that primary's, once a sentinel has named it.
struct Endpoint {
    bool unix_socket = false;
    std::string where; // socket path or host
    int port = 0;
    std::string text; // as configured, for messages
    std::vector<Endpoint> sentinels;
    std::string primary_of; // the name the sentinels monitor the primary by
};

// false when `text` is none of the three forms.
bool parse_endpoint(std::string_view text, Endpoint *ep);
// A port 1 to 65535, in decimal and nothing else.
bool parse_port(std::string_view text, int *port);
// The endpoint in messages: as configured, and the server a sentinel named.
std::string endpoint_text(const Endpoint &ep);

struct Settings {
    Endpoint endpoint;
    std::optional<std::string> user; // the ACL user to AUTH as (else "default")
    std::optional<std::string> password;
};

// A variable's value, or nullptr when it is not set: getenv, or a test's table.
using Lookup = std::function<const char *(const std::string &name)>;

// The settings of `db`: its own variables (_<db>) before the common ones, the default
// endpoint tcp:127.0.0.1:6379, a password from the environment or from the first line of
// a file, never both. 0, or KX_MOM_ECONFIG and `*why`, which names the variable and the
// form expected and never holds a password.
int32_t settings_for(int32_t db, const Lookup &env, Settings *out, std::string *why);

} // namespace kx

#endif
