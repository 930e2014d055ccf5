#ifndef ZEMAIL_TESTS_SUPPORT_TEST_UTIL_H
#define ZEMAIL_TESTS_SUPPORT_TEST_UTIL_H

#include <string>
#include <vector>

#include "imap/ZeImapMime.h"

namespace zetest {

// A directory under $TMPDIR (or /tmp) removed with everything in it when the
// object goes.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "zemail-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    // Writes a file below the directory (folders made as needed) and returns its path.
    std::string write(const std::string& relative, const std::string& content,
                      bool executable = false) const;

private:
    std::string m_path;
};

// The descriptors this process has open, from /proc/self/fd, as "fd -> target".
std::vector<std::string> open_descriptors();

// The pids of this process's children that have exited but were not reaped.
std::vector<int> zombie_children();

// The whole content of a file; throws when it cannot be read.
std::string read_file(const std::string& path);

// A message of multipart/mixed parts nested depth deep (boundaries "=_<level>_=")
// around one text part, each closed in turn.
std::string nested_multipart(int depth);

// Every field of every node of a MIME tree, one line each, depth first, so
// that two trees compare as texts ("" for a null tree).
std::string describe_tree(ZeImapMimeRef tree);

}  // namespace zetest

#endif
