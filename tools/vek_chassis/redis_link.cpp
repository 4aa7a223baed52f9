// The link to the Redis servers: one connection per server, pipelined, and what a
// server holds and has done.
#include "vek_chassis.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace chassis {
namespace {

constexpr timeval connect_timeout{2, 0};
constexpr timeval command_timeout{5, 0};

std::string stat_name(const std::vector<std::string> &args)
{
    std::string name = args[0];
    if (args.size() > 1 && (name == "CLIENT" || name == "CONFIG" || name == "ACL"))
        name += "|" + args[1];
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return tolower(c); });
    return name;
}

} // namespace

bool Redis::connect(std::string *why)
{
    ctx_.reset(redisConnectUnixWithTimeout(socket_.c_str(), connect_timeout));
    db_ = 0;
    if (!ctx_ || ctx_->err || redisSetTimeout(ctx_.get(), command_timeout) != REDIS_OK) {
        *why = ctx_ ? ctx_->errstr : "out of memory";
        ctx_.reset();
        return false;
    }
    if (user_.empty())
        return true;
    Reply auth(static_cast<redisReply *>(
        redisCommand(ctx_.get(), "AUTH %s %s", user_.c_str(), password_.c_str())));
    if (auth && auth->type != REDIS_REPLY_ERROR)
        return true;
    *why = auth ? "AUTH as " + user_ + ": " + auth->str : ctx_->errstr;
    ctx_.reset();
    return false;
}

std::vector<Reply> Redis::pipeline(int db, const std::vector<std::vector<std::string>> &commands,
                                   std::string *why)
{
    if ((!ctx_ || ctx_->err) && !connect(why))
        return {};
    std::vector<std::vector<std::string>> all;
    if (db != db_)
        all.push_back({"SELECT", std::to_string(db)});
    all.insert(all.end(), commands.begin(), commands.end());
    for (const auto &args : all) {
        ++sent_[stat_name(args)];
        std::vector<const char *> argv;
        std::vector<size_t> lens;
        for (const std::string &a : args)
            argv.push_back(a.data()), lens.push_back(a.size());
        redisAppendCommandArgv(ctx_.get(), static_cast<int>(argv.size()), argv.data(), lens.data());
    }
    std::vector<Reply> replies;
    for (size_t i = 0; i < all.size(); ++i) {
        void *r = nullptr;
        if (redisGetReply(ctx_.get(), &r) != REDIS_OK) {
            *why = ctx_->errstr;
            ctx_.reset();
            return {};
        }
        replies.emplace_back(static_cast<redisReply *>(r));
    }
    if (db != db_) {
        db_ = db;
        replies.erase(replies.begin());
    }
    return replies;
}

bool Redis::command(int db, const std::vector<std::string> &args, std::string *why)
{
    auto replies = pipeline(db, {args}, why);
    if (replies.empty())
        return false;
    if (replies[0]->type != REDIS_REPLY_ERROR)
        return true;
    *why = replies[0]->str;
    return false;
}

std::optional<Records> read_all(Redis &r, int db, std::string *why)
{
    std::vector<std::string> keys;
    std::string cursor = "0";
    do {
        auto replies = r.pipeline(db, {{"SCAN", cursor, "COUNT", "1000"}}, why);
        if (replies.empty() || replies[0]->type != REDIS_REPLY_ARRAY || replies[0]->elements != 2)
            return std::nullopt;
        const redisReply *page = replies[0].get();
        cursor.assign(page->element[0]->str, page->element[0]->len);
        for (size_t i = 0; i < page->element[1]->elements; ++i)
            keys.emplace_back(page->element[1]->element[i]->str, page->element[1]->element[i]->len);
    } while (cursor != "0");
    std::ranges::sort(keys);
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    std::vector<std::vector<std::string>> reads;
    for (const std::string &k : keys)
        reads.push_back({"HGETALL", k});
    auto replies = r.pipeline(db, reads, why);
    if (replies.size() != keys.size())
        return keys.empty() ? std::optional<Records>(Records{}) : std::nullopt;
    Records out;
    for (size_t i = 0; i < keys.size(); ++i) {
        const redisReply *h = replies[i].get();
        if (h->type == REDIS_REPLY_ARRAY && h->elements == 0)
            continue; // deleted since the scan
        Fields &f = out[keys[i]];
        if (h->type != REDIS_REPLY_ARRAY)
            f[""] = h->str ? std::string(h->str, h->len) : "?";
        for (size_t j = 0; h->type == REDIS_REPLY_ARRAY && j + 1 < h->elements; j += 2)
            f[std::string(h->element[j]->str, h->element[j]->len)] =
                std::string(h->element[j + 1]->str, h->element[j + 1]->len);
    }
    return out;
}

std::optional<ServerWork> server_work(Redis &r, int db, std::string *why)
{
    auto replies = r.pipeline(db, {{"INFO", "commandstats"}, {"INFO", "cpu"}}, why);
    if (replies.size() != 2)
        return std::nullopt;
    ServerWork w;
    for (const Reply &reply : replies) {
        if (reply->type != REDIS_REPLY_STRING) {
            *why = "INFO gave no text";
            return std::nullopt;
        }
        std::istringstream in(std::string(reply->str, reply->len));
        for (std::string line; std::getline(in, line);) {
            size_t colon = line.find(':'), calls = line.find("calls=");
            if (line.starts_with("cmdstat_") && calls != std::string::npos)
                w.calls[line.substr(8, colon - 8)] = atoll(line.c_str() + calls + 6);
            else if (line.starts_with("used_cpu_sys:") || line.starts_with("used_cpu_user:"))
                w.cpu_s += atof(line.c_str() + colon + 1);
        }
    }
    for (const auto &[name, n] : r.sent())
        w.calls[name] -= n;
    return w;
}

std::string work_text(const ServerWork &before, const ServerWork &after)
{
    std::vector<std::pair<long long, std::string>> by_count;
    long long total = 0;
    for (const auto &[name, n] : after.calls) {
        auto it = before.calls.find(name);
        long long done = n - (it == before.calls.end() ? 0 : it->second);
        if (done > 0)
            by_count.emplace_back(done, name), total += done;
    }
    std::ranges::sort(by_count, std::greater<>());
    std::string text = std::to_string(total) + " commands (";
    for (size_t i = 0; i < by_count.size(); ++i)
        text += (i ? ", " : "") + by_count[i].second + " " + std::to_string(by_count[i].first);
    char cpu[64];
    snprintf(cpu, sizeof cpu, "), %.0f ms CPU", (after.cpu_s - before.cpu_s) * 1000);
    return text + cpu;
}

} // namespace chassis
