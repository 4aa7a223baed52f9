// vek_cap_dbg: the log convention's sink, the log's start-up and level, and the
// debug-shell commands.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "ssat.h"
#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap_dbg";

namespace {

// At most this many bytes of the level file are read: a number and its line feed.
constexpr size_t VEK_CAP_DBG_READ_MAX = 14;

// The level file holds a decimal level; a file that cannot be opened or read leaves the
// level as it is.
void vek_cap_read_dbg_level(void)
{
    int fd = open(kx_root_path(VEK_CAP_DBG_FILE).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char buf[VEK_CAP_DBG_READ_MAX + 1] = {};
    if (read(fd, buf, VEK_CAP_DBG_READ_MAX) >= 0)
        vek_cap_set_dbg_level(static_cast<uint32_t>(strtol(buf, nullptr, 10)));
    close(fd);
}

} // namespace

void vek_cap_log_emit(std::string_view unit, std::string_view func, long line, int level,
                      const char *text)
{
    if (!g_vek_cap_zlog_category)
        return;
    kxdf_zlog(g_vek_cap_zlog_category, unit.data(), unit.size(), func.data(), func.size(), line,
              level, "%s", text);
}

int32_t vek_cap_zlog_init(const char *module)
{
    VEK_CAP_INFO("enter");
    vek_cap_read_dbg_level();
    g_vek_cap_zlog_category = kx_zlog_init(module);
    if (!g_vek_cap_zlog_category)
        VEK_CAP_ERR("%s init fail", "vek_cap.zlog");
    VEK_CAP_INFO("leave");
    return 0;
}

void vek_cap_set_dbg_level(uint32_t level)
{
    g_vek_cap_dbg_level = level;
    if (level >= 4)
        vek_cap_log_level(level);
}

void vek_cap_log_level(uint32_t level)
{
    // Written whatever the level: it reports the level itself.
    char buf[1024] = {};
    at_snprintf(buf, sizeof buf, "set debug level %d", static_cast<int>(level));
    vek_cap_log_emit(vek_cap_unit, __func__, __LINE__, KX_ZLOG_LEVEL_INFO, buf);
}

int32_t vek_cap_ssat_init(kx_global_t *global, const char *module)
{
    VEK_CAP_INFO("enter");
    int32_t rv = ssat_lib_init(global, module);
    if (rv != 0) {
        VEK_CAP_ERR("failed,rv %d", rv);
        return rv;
    }
    ssat_reg_mod_cmd(module, "log-level", 0, "%d", vek_cap_set_dbg_level);
    VEK_CAP_INFO("leave");
    return 0;
}
