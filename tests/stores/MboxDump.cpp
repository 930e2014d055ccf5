// Writes what ZeMbox reads from an mbox file, for mbox_crosscheck.py:
//
//   COUNT <messages>\n
//   MESSAGE <uid> <flags> <date> <size> <length>\n<length bytes>\n   (per message)
//
// <flags> is the status mask in decimal, <length> the count of bytes that
// media() gave, which follow as they are.
#include <cstdio>
#include <string>

#include "stores/ZeMbox.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <mbox file>\n", argv[0]);
        return 2;
    }
    ZeMbox box(argv[1], false, false);
    if (box.open() != 1) {
        return 1;
    }
    std::printf("COUNT %ld\n", box.total_messages());
    box.reset();
    while (box.next() == 1) {
        ZeMessageRef& message = box.fetch();
        Corvane::Ref<ZeMessageEnv>& env = message->env();
        const std::string bytes = message.media().readAll();
        std::printf("MESSAGE %lu %lu %lld %lu %zu\n", env->uid(), env->status().flags,
                    static_cast<long long>(env->date()), env->size(), bytes.size());
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        std::fputc('\n', stdout);
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
