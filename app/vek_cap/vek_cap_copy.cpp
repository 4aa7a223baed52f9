// Capability copy: one local capability entry, delivered by a scan of the card-local
// database, written into the chassis-global table. The card's own entries and a
// subcard's go through the same steps; they differ in the tables, in where the node
// comes from, and in the checks that only one of them makes (see vek_cap_copy_entry).
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

// The copy's lines name the callback the scan called, not the routine both share.
#define VEK_CAP_COPY_LOG(gate, level, ...) VEK_CAP_LOG_AS(func, gate, level, __VA_ARGS__)
#define VEK_CAP_COPY_ERR(...) VEK_CAP_COPY_LOG(1u, KX_ZLOG_LEVEL_ERROR, __VA_ARGS__)
#define VEK_CAP_COPY_WARN(...) VEK_CAP_COPY_LOG(2u, KX_ZLOG_LEVEL_WARN, __VA_ARGS__)
#define VEK_CAP_COPY_INFO(...) VEK_CAP_COPY_LOG(4u, KX_ZLOG_LEVEL_INFO, __VA_ARGS__)
#define VEK_CAP_COPY_DBG(...) VEK_CAP_COPY_LOG(5u, KX_ZLOG_LEVEL_DEBUG, __VA_ARGS__)

namespace {

// The destination record on the stack: no allocation, the url and the string borrowed
// from the delivered entry.
template <class Dst, class DstIndex> struct vek_cap_glb_entry {
    DstIndex index;
    Dst record;
};

// One delivered entry of `Src` copied as a `Dst`. A subcard's entry (its index has a
// `nodeid`) is written under the node `privdata` points to and only when it belongs to
// that subcard; the card's entry is written under the card's node as it is now, and must
// carry its str_value.
template <class Src, class Dst, class DstIndex>
int32_t vek_cap_copy_entry(std::string_view func, kx_mom_msg *msg, const int32_t *privdata,
                           vek_cap_glb_entry<Dst, DstIndex> dst)
{
    constexpr bool subcard = std::is_same_v<Src, PLibpub__CapSubcardTable>;
    VEK_CAP_REFUSE_NULL_WITH(VEK_CAP_COPY_ERR, msg);
    if constexpr (subcard) {
        // The subcard's scan always names its node; without one there is nothing to
        // compare against, so the delivery is refused like any callback's missing pointer.
        VEK_CAP_REFUSE_NULL_WITH(VEK_CAP_COPY_ERR, privdata);
        VEK_CAP_COPY_WARN("tmp_nodeid = %d", *privdata);
    }
    if (msg->cmd != KX_MOM_CMD_HSET && msg->cmd != KX_MOM_CMD_HDEL) {
        VEK_CAP_COPY_INFO("msg->cmd %d", msg->cmd);
        return 0;
    }
    auto *res = static_cast<kx_mom_hash_res *>(msg->data);
    if (int32_t rv = vek_cap_res_check(func, res); rv != 0)
        return rv;
    const auto *tmp = static_cast<const Src *>(res->obj);
    VEK_CAP_REFUSE_NULL_WITH(VEK_CAP_COPY_ERR, tmp);
    VEK_CAP_REFUSE_NULL_WITH(VEK_CAP_COPY_ERR, tmp->index);
    VEK_CAP_REFUSE_NULL_WITH(VEK_CAP_COPY_ERR, tmp->index->url);
    if (size_t len = strlen(tmp->index->url); len > VEK_CAP_URL_MAX) {
        VEK_CAP_COPY_ERR("tmp->index->url len too long %zu!\n", len);
        return -4;
    }
    if constexpr (!subcard) {
        VEK_CAP_REFUSE_NULL_WITH(VEK_CAP_COPY_ERR, tmp->str_value);
    }
    VEK_CAP_REFUSE_NULL_WITH(VEK_CAP_COPY_ERR, res->field_tag);
    if constexpr (subcard) {
        if (tmp->index->nodeid != *privdata) {
            VEK_CAP_COPY_INFO("nodeid %d != tmp_nodeid%d", tmp->index->nodeid, *privdata);
            return 0;
        }
    }

    dst.index.node = subcard ? *privdata : g_vek_cap_card.node;
    dst.index.url = tmp->index->url;
    dst.record.index = &dst.index;
    dst.record.bool_value = tmp->bool_value;
    dst.record.int32_value = tmp->int32_value;
    dst.record.str_value = tmp->str_value;
    const int32_t node = dst.index.node;
    VEK_CAP_COPY_DBG("node %d url %s, bool_value %d, int32_value %d, str_value %s", node,
                     tmp->index->url, tmp->bool_value, tmp->int32_value, tmp->str_value);
    VEK_CAP_COPY_DBG("field_len = %d", res->field_len);
    for (int32_t i = 0; i < res->field_len; ++i)
        VEK_CAP_COPY_DBG("field_tag[%d] = %d \n", i, res->field_tag[i]);

    // Sorted, the fields the chassis may see come first: cut the rest off the end.
    const int32_t field_len = res->field_len > 0 ? res->field_len : 0;
    qsort(res->field_tag, static_cast<size_t>(field_len), sizeof *res->field_tag, vek_cap_tag_cmp);
    int32_t count = field_len;
    for (int32_t i = 0; i < field_len; ++i)
        if (static_cast<uint32_t>(res->field_tag[i]) > VEK_CAP_GLB_FIELD_MAX)
            --count;
    VEK_CAP_COPY_DBG("set field_len = %d", count);
    if (count == 0)
        return 0;

    int32_t rv = kx_mom_hmset_sync(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &dst.record.base,
                                   res->field_tag, count);
    if (rv != 0) {
        VEK_CAP_COPY_ERR("rv %d, node %d url %s, bool_value %d, int32_value %d, str_value %s", rv,
                         node, tmp->index->url, tmp->bool_value, tmp->int32_value, tmp->str_value);
        VEK_CAP_COPY_INFO("field_len = %d", res->field_len);
        for (int32_t i = 0; i < field_len; ++i)
            VEK_CAP_COPY_ERR("field_tag[%d] = %d \n", i, res->field_tag[i]);
        return rv;
    }
    return 0;
}

} // namespace

int vek_cap_tag_cmp(const void *a, const void *b)
{
    uint32_t x = static_cast<uint32_t>(*static_cast<const int32_t *>(a));
    uint32_t y = static_cast<uint32_t>(*static_cast<const int32_t *>(b));
    return x > y ? 1 : x < y ? -1 : 0;
}

int32_t fe_glb_key_trace_url(kx_global_t *, kx_mom_msg *pmsg, void *)
{
    return vek_cap_copy_entry<PLibpub__CapTable>(
        __func__, pmsg, nullptr,
        vek_cap_glb_entry<SFrame__CapGlbTable, SFrame__CapGlbTableIndex>{
            S_FRAME__CAP_GLB_TABLE_INDEX__INIT, S_FRAME__CAP_GLB_TABLE__INIT});
}

int32_t subcard_glb_key_trace_url(kx_global_t *, kx_mom_msg *pmsg, void *privdata)
{
    return vek_cap_copy_entry<PLibpub__CapSubcardTable>(
        __func__, pmsg, static_cast<const int32_t *>(privdata),
        vek_cap_glb_entry<SFrame__CapSubcardGlbTable, SFrame__CapSubcardGlbTableIndex>{
            S_FRAME__CAP_SUBCARD_GLB_TABLE_INDEX__INIT, S_FRAME__CAP_SUBCARD_GLB_TABLE__INIT});
}
