// The dependency module registry: an open-addressing hash set of module names with
// their ready bytes, filled from the dependency directory at start-up.
//
// Its bucket order is visible (log lines, dumps, the order of the subscriptions), so
// the hash, the probe and the rehash below are fixed: XXH32 of the 64-byte name with
// seed 0, triangular probing, and an in-place rehash that keeps or doubles the
// bucket count. A plain re-insertion of the items would give another order.
#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <xxhash.h>

#include "kx_free.h"
#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

vek_cap_dep_alloc_t g_vek_cap_dep_alloc = {calloc, realloc, free};

namespace {

// Two bits per bucket, sixteen buckets per flag word.
constexpr uint32_t BUCKET_EMPTY = 2;
constexpr uint32_t BUCKET_DELETED = 1;
constexpr uint32_t MIN_BUCKETS = 4;
constexpr double LOAD_LIMIT = 0.77;

uint32_t flag_words(uint32_t n_buckets) { return n_buckets < 16 ? 1 : n_buckets >> 4; }
uint32_t flag_shift(uint32_t i) { return (i & 0xfU) << 1; }
uint32_t bucket_state(const uint32_t *flags, uint32_t i)
{
    return vek_cap_dep_bucket_state(flags, i);
}
bool is_empty(const uint32_t *flags, uint32_t i)
{
    return (bucket_state(flags, i) & BUCKET_EMPTY) != 0;
}
bool is_deleted(const uint32_t *flags, uint32_t i)
{
    return (bucket_state(flags, i) & BUCKET_DELETED) != 0;
}
bool is_live(const uint32_t *flags, uint32_t i) { return bucket_state(flags, i) == 0; }
void set_not_empty(uint32_t *flags, uint32_t i)
{
    flags[i >> 4] &= ~(BUCKET_EMPTY << flag_shift(i));
}
void set_deleted(uint32_t *flags, uint32_t i) { flags[i >> 4] |= BUCKET_DELETED << flag_shift(i); }
void set_live(uint32_t *flags, uint32_t i) { flags[i >> 4] &= ~(3U << flag_shift(i)); }

uint32_t upper_bound_of(uint32_t n_buckets)
{
    return static_cast<uint32_t>(n_buckets * LOAD_LIMIT + 0.5);
}

uint32_t dep_hash(const vek_cap_dep_item *item)
{
    return XXH32(item->module, sizeof item->module, 0);
}

bool same_module(const vek_cap_dep_item *a, const vek_cap_dep_item *b)
{
    return std::memcmp(a->module, b->module, sizeof a->module) == 0;
}

void dep_free(void *ptr) { g_vek_cap_dep_alloc.free_f(ptr); }

// Rebuilds the table at the kept or doubled size. Returns false, with the registry as
// it was, when an array cannot be allocated.
bool dep_hash_rehash(vek_cap_dep_hash_t *h)
{
    const uint32_t target =
        std::max(MIN_BUCKETS, h->n_buckets > 2 * h->size ? h->n_buckets : h->n_buckets * 2);
    if (h->size >= upper_bound_of(target))
        return true;

    auto *new_flags =
        static_cast<uint32_t *>(g_vek_cap_dep_alloc.calloc_f(flag_words(target), sizeof(uint32_t)));
    if (!new_flags)
        return false;
    std::memset(new_flags, 0xAA, flag_words(target) * sizeof(uint32_t));
    if (target > h->n_buckets) {
        auto *keys = static_cast<vek_cap_dep_item **>(
            g_vek_cap_dep_alloc.realloc_f(h->keys, target * sizeof(vek_cap_dep_item *)));
        if (!keys) {
            dep_free(new_flags);
            return false;
        }
        h->keys = keys;
    }

    // Move the items in place: an item whose new bucket still holds an unmoved item
    // takes its place, and the displaced item is carried on.
    const uint32_t new_mask = target - 1;
    for (uint32_t j = 0; j != h->n_buckets; ++j) {
        if (!is_live(h->flags, j))
            continue;
        vek_cap_dep_item *carried = h->keys[j];
        set_deleted(h->flags, j);
        for (;;) {
            uint32_t b = dep_hash(carried) & new_mask;
            for (uint32_t step = 1; !is_empty(new_flags, b); ++step)
                b = (b + step) & new_mask;
            set_not_empty(new_flags, b);
            if (b < h->n_buckets && is_live(h->flags, b)) {
                std::swap(carried, h->keys[b]);
                set_deleted(h->flags, b);
            } else {
                h->keys[b] = carried;
                break;
            }
        }
    }

    // The bucket count never shrinks, so the key array never has to.
    dep_free(h->flags);
    h->flags = new_flags;
    h->n_buckets = target;
    h->n_occupied = h->size;
    h->upper_bound = upper_bound_of(target);
    return true;
}

// The bucket for a module known to be absent: the home bucket when empty, otherwise
// along the probe the last deleted bucket met before an empty one (or before coming
// back home), else that empty bucket. n_buckets when there is none.
uint32_t dep_hash_slot(const vek_cap_dep_hash_t *h, uint32_t hash)
{
    const uint32_t mask = h->n_buckets - 1;
    const uint32_t home = hash & mask;
    if (is_empty(h->flags, home))
        return home;
    uint32_t deleted = h->n_buckets;
    uint32_t i = home;
    for (uint32_t step = 1;; ++step) {
        if (is_deleted(h->flags, i))
            deleted = i;
        i = (i + step) & mask;
        if (i == home)
            return deleted;
        if (is_empty(h->flags, i))
            return deleted != h->n_buckets ? deleted : i;
    }
}

// Adds a module known to be absent, rehashing first when the occupied buckets have
// reached the bound. Null, with the registry as it was, when memory runs out.
vek_cap_dep_item *dep_hash_add(vek_cap_dep_hash_t *h, const vek_cap_dep_item *item)
{
    std::unique_ptr<vek_cap_dep_item, decltype(&dep_free)> fresh(
        static_cast<vek_cap_dep_item *>(g_vek_cap_dep_alloc.calloc_f(1, sizeof(vek_cap_dep_item))),
        dep_free);
    if (!fresh)
        return nullptr;
    *fresh = *item;
    if (h->n_occupied >= h->upper_bound && !dep_hash_rehash(h))
        return nullptr;
    const uint32_t b = dep_hash_slot(h, dep_hash(fresh.get()));
    if (b == h->n_buckets) // no free bucket: cannot happen below the load limit
        return nullptr;
    if (is_empty(h->flags, b))
        ++h->n_occupied;
    ++h->size;
    set_live(h->flags, b);
    return h->keys[b] = fresh.release();
}

} // namespace

int vek_cap_init_dep_hash(void)
{
    auto *h = static_cast<vek_cap_dep_hash_t *>(
        g_vek_cap_dep_alloc.calloc_f(1, sizeof(vek_cap_dep_hash_t)));
    if (!h)
        return -1;
    g_vek_cap_dep_hash = h;
    return 0;
}

int vek_cap_con_dep_info(vek_cap_dep_item *item, const char *mod, uint8_t ready)
{
    VEK_CAP_REFUSE_NULL(item);
    VEK_CAP_REFUSE_NULL(mod);
    std::memset(item, 0, sizeof *item);
    std::memcpy(item->module, mod, strnlen(mod, sizeof item->module - 1));
    item->ready = ready;
    return 0;
}

vek_cap_dep_item *vek_cap_find_dep_hash(const vek_cap_dep_item *key)
{
    const vek_cap_dep_hash_t *h = g_vek_cap_dep_hash;
    if (!key || !h || h->n_buckets == 0)
        return nullptr;
    const uint32_t mask = h->n_buckets - 1;
    const uint32_t home = dep_hash(key) & mask;
    uint32_t i = home;
    for (uint32_t step = 1; !is_empty(h->flags, i); ++step) {
        if (!is_deleted(h->flags, i) && same_module(h->keys[i], key))
            return h->keys[i];
        i = (i + step) & mask;
        if (i == home)
            break;
    }
    return nullptr;
}

vek_cap_dep_item *vek_cap_put_dep_hash(vek_cap_dep_item **out, const vek_cap_dep_item *item)
{
    vek_cap_dep_item *stored = nullptr;
    if (item && g_vek_cap_dep_hash) {
        stored = vek_cap_find_dep_hash(item);
        if (stored)
            *stored = *item; // the same name: only `ready` can differ
        else
            stored = dep_hash_add(g_vek_cap_dep_hash, item);
    }
    if (out)
        *out = stored;
    return stored;
}

int vek_cap_insert_dep_hash(const vek_cap_dep_item *item, int dir)
{
    VEK_CAP_REFUSE_NULL(item);
    VEK_CAP_INFO("module %s, ready %d dir %d", item->module, item->ready, dir);
    if (vek_cap_dep_item *stored = vek_cap_find_dep_hash(item)) {
        VEK_CAP_INFO("module %s, found", item->module);
        // A readiness record (dir 1) updates the module; a repeated directory entry does not.
        if (dir == 1)
            stored->ready = item->ready;
        return 0;
    }
    VEK_CAP_INFO("module %s, not found", item->module);
    if (!vek_cap_put_dep_hash(nullptr, item)) {
        VEK_CAP_ERR("add module: %s failed", item->module);
        return -11;
    }
    VEK_CAP_INFO("add module: %s success", item->module);
    return 0;
}

int vek_cap_walk_dep_hash(vek_cap_dep_walk_cb cb, void *priv)
{
    VEK_CAP_REFUSE_NULL(cb);
    // The callback may insert and so rehash: the record is read afresh at every step.
    for (uint32_t i = 0;; ++i) {
        const vek_cap_dep_hash_t *h = g_vek_cap_dep_hash;
        if (!h || i >= h->n_buckets)
            return 0;
        if (!is_live(h->flags, i))
            continue;
        if (int rv = cb(h->keys[i], priv); rv != 0)
            return rv;
    }
}

int vek_cap_chk_ready(vek_cap_dep_item *item, void *para)
{
    VEK_CAP_REFUSE_NULL(item);
    VEK_CAP_REFUSE_NULL(para);
    if (item->ready) {
        VEK_CAP_INFO("module %s ready", item->module);
        return 0;
    }
    *static_cast<uint8_t *>(para) = 0;
    VEK_CAP_WARN("module %s not ready", item->module);
    return 0;
}

void vek_cap_collect_dep_event(void)
{
    std::unique_ptr<DIR, FreeWith<closedir>> pdir(opendir(kx_root_path(VEK_CAP_DEP_DIR).c_str()));
    if (!pdir) {
        VEK_CAP_ERR("pdir NULL pointer, addr error!\n");
        return;
    }
    vek_cap_dep_item scratch;
    while (const dirent *entry = readdir(pdir.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        // Only regular files name modules; a file system that reports no type gives none.
        if (entry->d_type != DT_REG)
            continue;
        vek_cap_con_dep_info(&scratch, entry->d_name, 0);
        vek_cap_insert_dep_hash(&scratch, 0);
    }
}
