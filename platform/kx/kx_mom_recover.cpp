// What a lost connection costs: what changed meanwhile, and nothing lost.
//
// Routes. Each route notes what it delivered, a 64-bit digest per record key. When its
// database comes back, its subscription is restored silently and, once the server has
// confirmed it, the route reads what it covers now and delivers only the differences,
// as the lost notifications would have: a record new or changed as a change, a record
// gone as a deletion (decoded from its key). Routes of databases whose connections held
// are not touched, but for those whose deliveries read the database that came back, or
// could not: they check what they read. The first confirmation of a route reads what it covers
// without delivering it: its caller catches up by itself on cmd 29.
//
// Owed deliveries. A delivery is noted only when it went through: one whose connection
// was lost meanwhile, or whose callback read from another database that was away, is
// delivered again. The first by the reconcile after the reconnect; the second, once that
// other database is back, by a reconcile of its route.
//
// Kept writes. A write or deletion that failed because its database was away is kept
// (the last one meant for each key, in the order meant) and made once the database is
// back, before anything else runs there: the store gets what the process last meant to
// write, at one write per record, and an entry still precedes the ready record written
// after it.
#include <algorithm>

#include "kx_codec.h"
#include "kx_mom_state.h"

namespace kx {
namespace {

// Kept writes made per round trip once the database is back.
constexpr size_t kKeptBatch = 64;

// What reconciling a route found of what it covers.
struct Survey {
    Route &route;
    bool deliver;                          // false: note what is there, deliver nothing
    std::unordered_set<std::string> found; // the keys of the records present
    // What the inputs of its records hold now, each read once however many records read it.
    std::map<std::pair<int32_t, std::string>, std::optional<uint64_t>> inputs_now;
};

// A change or deletion the reconcile delivers, counted for the line saying what the
// database's coming back cost.
void count_change(Database &d, const Route &route)
{
    ++(route.restorer ? route.restorer : &d)->changes;
}

// Reading only: read_step adds each record's digest to the scan's sum.
void just_read(Database &, ScanWork &, const std::string &, const redisReply *) {}

// What `input` holds now, as its digests added; nullopt when it cannot be read.
std::optional<uint64_t> sum_now(kx_global *global, const Input &input)
{
    ScanWork w(global, input.db, table_of_key(input.selection), input.selection, input.glob);
    w.visit = just_read;
    if (note_unreachable(global, input.db, run_scan(w)) != 0)
        return std::nullopt;
    return w.sum;
}

// False when what the callback read for `noted` changed since. An input that cannot be
// read now is checked when its database is back: the route is owed to it.
bool inputs_hold(Database &d, Survey &s, const Noted &noted)
{
    for (const Input &input : noted.inputs) {
        auto [at, first] = s.inputs_now.try_emplace({input.db, input.selection});
        if (first) {
            Delivery checking{&s.route};
            DeliveryScope scope(d.global, checking);
            at->second = sum_now(d.global, input);
        }
        if (at->second && *at->second != input.sum)
            return false;
    }
    return true;
}

// One record read: delivered when it differs from what the route delivered, or when what
// its delivery read did. A delivery that loses the connection ends the scan (read_step
// sees the epoch change).
void compare(Database &d, ScanWork &w, const std::string &key, const redisReply *r)
{
    auto &s = *static_cast<Survey *>(w.visit_arg);
    if (missing(r))
        return;
    s.found.insert(key);
    const uint64_t now = digest(r);
    auto it = s.route.delivered.find(key);
    if (!s.deliver) {
        s.route.delivered[key] = {now, s.route.caught_up};
        return;
    }
    if (it != s.route.delivered.end() && it->second.digest == now && inputs_hold(d, s, it->second))
        return;
    Payload p = payload_from_reply(d.db, key, w.table, r, KX_MOM_CMD_HSET);
    if (p.cmd == 0)
        return;
    count_change(d, s.route);
    deliver_to_route(d, s.route, p.cmd, p.data(), key, now);
}

// Reads what `route` covers now; with `deliver`, hands it what differs from what it
// delivered. 0 when done, else why not (the connection lost: the epoch tells).
int32_t reconcile(Database &d, Route &route, bool deliver)
{
    ScanWork w(d.global, d.db, route.table, route.key, route.pattern);
    Survey survey{route, deliver, {}, {}};
    w.visit = compare;
    w.visit_arg = &survey;
    if (int32_t rc = run_scan(w); rc != 0)
        return rc;
    std::vector<std::string> gone;
    for (const auto &[key, noted] : route.delivered)
        if (!survey.found.count(key))
            gone.push_back(key);
    for (const std::string &key : gone) {
        std::string error;
        Message record(deliver ? parse_key(route.table, key, &error) : nullptr);
        if (!record) {
            route.delivered.erase(key);
            continue;
        }
        count_change(d, route);
        if (!deliver_to_route(d, route, KX_MOM_CMD_DEL, record.get(), key, std::nullopt))
            return KX_MOM_EIO;
    }
    return 0;
}

// The commands that make an intent: DEL, then SET or HSET.
void append_intent(const std::string &key, const Intent &in, std::vector<Command> *cmds)
{
    if (in.del)
        cmds->push_back({"DEL", key});
    if (in.whole) {
        cmds->push_back({"SET", key, *in.whole});
        return;
    }
    if (in.fields.empty())
        return;
    Command hset = {"HSET", key};
    for (const auto &[name, text] : in.fields) {
        hset.push_back(name);
        hset.push_back(text);
    }
    cmds->push_back(std::move(hset));
}

// The intent kept for `key` in `db`, moved to the end (it is the latest meant); nullptr
// when the database was never connected: nothing would make the write.
Intent *intent_for(kx_global *global, int32_t db, const std::string &key)
{
    if (!global || !global->mom)
        return nullptr;
    auto found = global->mom->dbs.find(db);
    if (found == global->mom->dbs.end() || found->second->link == Link::never)
        return nullptr;
    Database *d = found->second.get();
    auto at = d->kept_at.find(key);
    if (at == d->kept_at.end()) {
        d->kept.emplace_back(key, Intent{});
        at = d->kept_at.emplace(key, std::prev(d->kept.end())).first;
    } else {
        d->kept.splice(d->kept.end(), d->kept, at->second);
    }
    return &at->second->second;
}

bool reads_from(const Route &route, int32_t db)
{
    for (const auto &[key, noted] : route.delivered)
        for (const Input &input : noted.inputs)
            if (input.db == db)
                return true;
    return false;
}

} // namespace

bool deliver_to_route(Database &d, Route &route, int32_t cmd, void *data, const std::string &key,
                      std::optional<uint64_t> digest)
{
    Delivery delivery{&route};
    const uint64_t epoch = d.epoch;
    if (cmd == KX_MOM_CMD_SUBSCRIBED)
        route.announce = false; // due again if the callback subscribes it again
    {
        DeliveryScope scope(d.global, delivery);
        deliver(d.global, route.cb, route.privdata, d.db, route.table, cmd, data, key.c_str(), 0);
    }
    const bool held = d.epoch == epoch;
    // What it read of its own coverage is what its digests are about.
    std::erase_if(delivery.inputs,
                  [&](const Input &in) { return in.db == route.db && in.selection == route.key; });
    if (cmd == KX_MOM_CMD_SUBSCRIBED) {
        route.announce = route.announce || !held || delivery.owed;
        if (!route.announce)
            route.caught_up = std::move(delivery.inputs);
    } else if (!held || delivery.owed)
        route.delivered[key] = {kUnsure, {}};
    else if (digest)
        route.delivered[key] = {*digest, std::move(delivery.inputs)};
    else
        route.delivered.erase(key);
    return held;
}

void settle(Database &d, Route &route)
{
    // A reconcile that the server refuses (a read the user may not make) is logged and
    // not tried again before the next reconnect; one cut by a lost connection is.
    const uint64_t epoch = d.epoch;
    if (route.followed == Followed::lost) {
        reconcile(d, route, true);
        if (d.epoch != epoch)
            return;
        route.followed = Followed::live;
    }
    if (route.announce &&
        !deliver_to_route(d, route, KX_MOM_CMD_SUBSCRIBED, nullptr, route.key, std::nullopt))
        return;
    // Read after the caller's catch-up: what changes meanwhile comes as notifications. A
    // read cut by a lost connection leaves the catch-up due again, from the start.
    if (route.followed == Followed::not_yet) {
        reconcile(d, route, false);
        if (d.epoch != epoch) {
            route.announce = true;
            return;
        }
        route.followed = Followed::live;
    }
    route.caught_up.clear();
    restored(route, true);
}

void restored(Route &route, bool settled)
{
    Database *by = std::exchange(route.restorer, nullptr);
    if (!by || by->restoring == 0)
        return;
    by->settled += settled;
    if (--by->restoring == 0)
        KX_LOG(NOTICE, "db %d: %zu subscriptions followed again, %zu changes delivered", by->db,
               by->settled, by->changes);
}

int32_t note_unreachable(kx_global *global, int32_t db, int32_t rc)
{
    if (rc != KX_MOM_ENOTCONN && rc != KX_MOM_EIO)
        return rc;
    Delivery *delivery = global && global->mom ? global->mom->delivering : nullptr;
    if (!delivery || delivery->route->db == db)
        return rc; // its own database: the reconcile after the reconnect delivers it again
    auto it = global->mom->dbs.find(db);
    if (it == global->mom->dbs.end() || it->second->link == Link::never)
        return rc;
    delivery->owed = true;
    std::vector<Route *> &owed = it->second->owed;
    if (std::ranges::find(owed, delivery->route) == owed.end())
        owed.push_back(delivery->route);
    return rc;
}

void note_input(kx_global *global, Input input)
{
    Delivery *delivery = global && global->mom ? global->mom->delivering : nullptr;
    if (!delivery)
        return;
    // Read again (each subcard's publication reads every subcard's entries): the last read
    // is what the delivery's outcome rests on.
    std::erase_if(delivery->inputs, [&](const Input &in) {
        return in.db == input.db && in.selection == input.selection;
    });
    delivery->inputs.push_back(std::move(input));
}

void keep_write(kx_global *global, int32_t db, const Write &w)
{
    Intent *in = intent_for(global, db, w.key);
    if (!in)
        return;
    if (w.whole) {
        *in = Intent{};
        in->whole = w.value;
        return;
    }
    if (in->whole) // a hash written over a whole value: what the server would refuse
        *in = Intent{.del = true};
    for (const FieldText &f : w.fields) {
        auto same =
            std::ranges::find(in->fields, f.name, &std::pair<std::string, std::string>::first);
        if (same != in->fields.end())
            same->second = f.text;
        else
            in->fields.emplace_back(std::string(f.name), f.text);
    }
}

void keep_delete(kx_global *global, int32_t db, const std::string &key)
{
    if (Intent *in = intent_for(global, db, key))
        *in = Intent{.del = true};
}

bool make_kept_writes(Database &d)
{
    const size_t kept = d.kept.size();
    while (!d.kept.empty()) {
        std::vector<Command> cmds;
        auto end = d.kept.begin();
        for (size_t n = 0; n < kKeptBatch && end != d.kept.end(); ++n, ++end)
            append_intent(end->first, end->second, &cmds);
        std::vector<Reply> replies;
        if (run_commands(d, cmds, &replies) != 0)
            return false; // lost again: the rest is made after the next reconnect
        for (size_t i = 0; i < replies.size(); ++i)
            if (replies[i]->type == REDIS_REPLY_ERROR)
                server_refused(d.db, std::string(cmds[i][1]), replies[i].get());
        for (auto it = d.kept.begin(); it != end; it = d.kept.erase(it))
            d.kept_at.erase(it->first);
    }
    if (kept > 0)
        KX_LOG(NOTICE, "db %d: made the writes kept for %zu records while it was away", d.db, kept);
    return true;
}

void restore_routes(Database &d)
{
    d.changes = 0;
    d.settled = 0;
    d.restoring = d.routes.size();
    for (const auto &route : d.routes) {
        route->restorer = &d;
        send_subscribe(d, *route);
    }
    // Routes elsewhere whose deliveries read from `d`, or could not, check what they read.
    for (const auto &[db, other] : d.global->mom->dbs)
        for (const auto &route : other->routes)
            if (other.get() != &d && reads_from(*route, d.db) &&
                std::ranges::find(d.owed, route.get()) == d.owed.end())
                d.owed.push_back(route.get());
    for (Route *route : std::exchange(d.owed, {})) {
        Database &home = *database(d.global, route->db);
        if (home.link != Link::up || home.restore_due || route->restorer)
            continue; // its own coming back checks it, or it is being checked
        route->followed = Followed::lost;
        route->restorer = &d;
        ++d.restoring;
        send_subscribe(home, *route);
    }
}

} // namespace kx
