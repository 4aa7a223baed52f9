// The settings of a database's connection, from the environment. The credentials are
// read again at every connect, so that a password file replaced while the process runs
// is used from the next reconnect on.
#include "kx_endpoint.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

#include "kx_codec.h"
#include "kx_mom.h"

namespace kx {
namespace {

// HOST:PORT[,HOST:PORT...]/NAME, where a sentinel may also be unix:/path.
bool parse_sentinels(std::string_view text, Endpoint *ep)
{
    size_t slash = text.rfind('/');
    if (slash == std::string_view::npos || slash + 1 == text.size())
        return false;
    ep->primary_of = std::string(text.substr(slash + 1));
    for (std::string_view list = text.substr(0, slash);;) {
        std::string_view one = list.substr(0, list.find(','));
        Endpoint sentinel;
        if (!parse_endpoint(one.starts_with("unix:") ? std::string(one) : "tcp:" + std::string(one),
                            &sentinel))
            return false;
        sentinel.text = std::string(one);
        ep->sentinels.push_back(std::move(sentinel));
        if (one.size() == list.size())
            return true;
        list.remove_prefix(one.size() + 1);
    }
}

// The password in the first line of `path`; false with `*why` when there is none.
bool read_password(const std::string &variable, const char *path, Settings *out, std::string *why)
{
    std::ifstream in(path);
    if (!in) {
        *why = "cannot read " + variable + " '" + printable(path) + "': " + strerror(errno);
        return false;
    }
    std::string line;
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    if (line.empty()) {
        *why = variable + " '" + printable(path) + "' holds no password on its first line";
        return false;
    }
    out->password = std::move(line);
    return true;
}

// The credentials: its own settings (KX_MOM_USER_<db>...) before the common ones, so that
// the card-local server may need none while the chassis-global one confines each card.
// The secret may come from a file, so that it is not in every process's environment.
bool credentials_for(int32_t db, const Lookup &env, Settings *out, std::string *why)
{
    std::string user_variable;
    for (const std::string &own : {"_" + std::to_string(db), std::string()}) {
        if (const char *user = env("KX_MOM_USER" + own); user && !out->user) {
            out->user = user;
            user_variable = "KX_MOM_USER" + own;
        }
        const std::string variable = "KX_MOM_PASSWORD" + own,
                          file_variable = "KX_MOM_PASSWORD_FILE" + own;
        const char *password = env(variable), *file = env(file_variable);
        if (out->password || (!password && !file))
            continue;
        if (password && file) {
            *why = variable + " and " + file_variable + " are both set";
            return false;
        }
        if (password)
            out->password = password;
        else if (!read_password(file_variable, file, out, why))
            return false;
    }
    if (out->user && !out->password) {
        *why = user_variable + " is set without KX_MOM_PASSWORD" + user_variable.substr(11);
        return false;
    }
    return true;
}

} // namespace

bool parse_port(std::string_view text, int *port)
{
    int value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 1 ||
        value > 65535)
        return false;
    *port = value;
    return true;
}

bool parse_endpoint(std::string_view text, Endpoint *ep)
{
    ep->text = std::string(text);
    if (text.starts_with("unix:")) {
        ep->unix_socket = true;
        ep->where = std::string(text.substr(5));
        return !ep->where.empty();
    }
    if (text.starts_with("sentinel:"))
        return parse_sentinels(text.substr(9), ep);
    if (!text.starts_with("tcp:"))
        return false;
    std::string_view rest = text.substr(4);
    size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    std::string_view host = rest.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    ep->unix_socket = false;
    ep->where = std::string(host);
    return !host.empty() && parse_port(rest.substr(colon + 1), &ep->port);
}

std::string endpoint_text(const Endpoint &ep)
{
    if (ep.sentinels.empty() || ep.where.empty())
        return ep.text;
    return ep.text + " at " + ep.where + ":" + std::to_string(ep.port);
}

int32_t settings_for(int32_t db, const Lookup &env, Settings *out, std::string *why)
{
    std::string name = "KX_MOM_ADDR_" + std::to_string(db);
    const char *value = env(name);
    if (!value) {
        name = "KX_MOM_ADDR";
        value = env(name);
    }
    if (!value)
        value = "tcp:127.0.0.1:6379";
    if (!parse_endpoint(value, &out->endpoint)) {
        *why = "bad " + name + " '" + printable(value) + "': expected " +
               (std::string_view(value).starts_with("sentinel:")
                    ? "sentinel:HOST:PORT[,HOST:PORT...]/NAME (a sentinel may be unix:/path)"
                    : "unix:/path/redis.sock or tcp:HOST:PORT");
        return KX_MOM_ECONFIG;
    }
    if (!credentials_for(db, env, out, why)) {
        *why = endpoint_text(out->endpoint) + ": " + *why;
        return KX_MOM_ECONFIG;
    }
    return 0;
}

} // namespace kx
