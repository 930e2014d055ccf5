#include "support/Debug.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace basepp {
namespace dbg {
namespace {

// The channel's process-wide state: the mask and the output stream.
struct Channel {
    std::atomic<std::uint32_t> mask{0};
    std::mutex lock;
    std::FILE* out = nullptr;  // null: standard error

    Channel() {
        if (const char* text = std::getenv("ZEMAIL_DEBUG_MASK")) {
            mask = static_cast<std::uint32_t>(std::strtoul(text, nullptr, 0));
        }
        if (const char* path = std::getenv("ZEMAIL_DEBUG_FILE")) {
            if (*path) {
                out = std::fopen(path, "a");
            }
        }
    }
    ~Channel() {
        if (out) {
            std::fclose(out);
        }
    }
};

Channel& channel() {
    static Channel instance;
    return instance;
}

}  // namespace

std::uint32_t nCfg_debug_zone() {
    return channel().mask.load(std::memory_order_relaxed);
}

void set_debug_zone(std::uint32_t mask) {
    channel().mask.store(mask, std::memory_order_relaxed);
}

bool enabled() {
    constexpr std::uint32_t both = kZoneImap | kLevelTrace;
    return (nCfg_debug_zone() & both) == both;
}

bool set_debug_output(const std::string& path) {
    std::FILE* next = nullptr;
    if (!path.empty()) {
        next = std::fopen(path.c_str(), "a");
        if (!next) {
            return false;
        }
    }
    Channel& ch = channel();
    std::lock_guard<std::mutex> guard(ch.lock);
    if (ch.out) {
        std::fclose(ch.out);
    }
    ch.out = next;
    return true;
}

void debug(const char* unit, int line, const char* function, const char* format, ...) {
    if (!enabled()) {
        return;
    }
    // Records may carry whole server answers: size the text, never cut it.
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int size = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    if (size > 0) {
        std::vsnprintf(&text[0], text.size() + 1, format, again);
    }
    va_end(again);

    Channel& ch = channel();
    std::lock_guard<std::mutex> guard(ch.lock);
    std::FILE* out = ch.out ? ch.out : stderr;
    std::fprintf(out, "%s::%s:%d: %s\n", unit ? unit : "?", function ? function : "?", line,
                 text.c_str());
    std::fflush(out);
}

}  // namespace dbg
}  // namespace basepp

void imap_syslog(int level, const char* format, ...) {
    static std::once_flag opened;
    std::call_once(opened, [] { openlog("zemail", LOG_PID, LOG_MAIL); });
    va_list args;
    va_start(args, format);
    vsyslog(level, format, args);
    va_end(args);
}
