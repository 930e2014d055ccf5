/*
 * The floor of MaildirWalkBench: what a bare C program needs to walk a
 * Maildir folder and report, for every file of cur/, its IMAP UID, its flag
 * letters and its delivery time. No objects, no allocation per message.
 *
 * The UID map is read from the folder's ".dovecot-uidlist" into one open
 * addressing table (FNV-1a, linear probing) whose keys point into a single
 * copy of the file; the walk itself is opendir/readdir, a cut at the first
 * ",", one probe, and a scan of the letters after ":2,".
 *
 * walk_floor_headers() adds the least a header reader must do: open the
 * file, read its first block, find the end of the header and the Subject
 * line in it.
 */
#include <dirent.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "maildir_walk_floor.h"

static uint64_t walk_hash(const char* p, size_t n) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < n; ++i) {
        h ^= (unsigned char)p[i];
        h *= 1099511628211ull;
    }
    return h;
}

static void walk_insert(struct walk_uidmap* map, const char* name, size_t length, uint64_t uid) {
    size_t i = (size_t)walk_hash(name, length) & map->mask;
    while (map->slots[i].name != NULL) {
        if (map->slots[i].length == length && memcmp(map->slots[i].name, name, length) == 0) {
            return; /* the first record of a name wins */
        }
        i = (i + 1) & map->mask;
    }
    map->slots[i].name = name;
    map->slots[i].length = (uint32_t)length;
    map->slots[i].uid = uid;
    ++map->count;
}

void walk_uidmap_free(struct walk_uidmap* map) {
    free(map->text);
    free(map->slots);
    memset(map, 0, sizeof *map);
}

/* Reads "<uid> [fields] :<name>" records after the header line; the key is
 * the name up to its first ",". 0 on success, -1 when the file cannot be
 * read. */
int walk_uidmap_load(struct walk_uidmap* map, const char* path) {
    memset(map, 0, sizeof *map);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        close(fd);
        return -1;
    }
    size_t size = (size_t)st.st_size;
    map->text = malloc(size + 1);
    size_t lines = 0;
    size_t done = 0;
    while (map->text != NULL && done < size) {
        ssize_t got = read(fd, map->text + done, size - done);
        if (got <= 0) {
            break;
        }
        done += (size_t)got;
    }
    close(fd);
    if (map->text == NULL || done != size) {
        walk_uidmap_free(map);
        return -1;
    }
    map->text[size] = '\n';
    for (size_t i = 0; i < size; ++i) {
        lines += map->text[i] == '\n';
    }
    size_t capacity = 16;
    while (capacity < 2 * lines) {
        capacity *= 2;
    }
    map->slots = calloc(capacity, sizeof *map->slots);
    if (map->slots == NULL) {
        walk_uidmap_free(map);
        return -1;
    }
    map->mask = capacity - 1;

    const char* p = memchr(map->text, '\n', size + 1) + 1; /* past the header */
    const char* end = map->text + size;
    while (p < end) {
        const char* eol = memchr(p, '\n', (size_t)(end - p) + 1);
        uint64_t uid = 0;
        const char* q = p;
        while (q < eol && *q >= '0' && *q <= '9') {
            uid = uid * 10 + (uint64_t)(*q++ - '0');
        }
        const char* colon = memchr(q, ':', (size_t)(eol - q));
        if (uid != 0 && colon != NULL) {
            const char* name = colon + 1;
            const char* comma = memchr(name, ',', (size_t)(eol - name));
            size_t length = (size_t)((comma != NULL ? comma : eol) - name);
            if (length > 0) {
                walk_insert(map, name, length, uid);
            }
        }
        p = eol + 1;
    }
    return 0;
}

/* The UID of a base name; 0 when the map has none. */
uint64_t walk_uidmap_find(const struct walk_uidmap* map, const char* name, size_t length) {
    size_t i = (size_t)walk_hash(name, length) & map->mask;
    while (map->slots[i].name != NULL) {
        if (map->slots[i].length == length && memcmp(map->slots[i].name, name, length) == 0) {
            return map->slots[i].uid;
        }
        i = (i + 1) & map->mask;
    }
    return 0;
}

/* Everything the name says; the same fields the library's envelope walk
 * reads. */
static void walk_name(const char* name, const struct walk_uidmap* map, struct walk_totals* t) {
    const char* comma = strchr(name, ',');
    const char* info = strstr(name, ":2,");
    size_t base = comma != NULL ? (size_t)(comma - name) : strlen(name);
    if (info != NULL && (size_t)(info - name) < base) {
        base = (size_t)(info - name);
    }
    t->base_bytes += base;
    uint64_t uid = walk_uidmap_find(map, name, base);
    if (uid != 0) {
        ++t->known;
        t->uid_sum += uid;
    }
    uint64_t date = 0;
    for (const char* d = name; *d >= '0' && *d <= '9'; ++d) {
        date = date * 10 + (uint64_t)(*d - '0');
    }
    t->date_sum += date;
    if (info != NULL) {
        uint64_t bits = 0;
        for (const char* f = info + 3; *f != '\0'; ++f) {
            if (*f >= 'A' && *f <= 'Z') {
                bits |= 1ull << (*f - 'A');
            } else if (*f >= 'a' && *f <= 'z') {
                bits |= 1ull << (26 + *f - 'a');
            }
        }
        t->seen += (bits >> ('S' - 'A')) & 1u;
        t->flag_bits |= bits;
    }
    ++t->messages;
}

/* The Subject line of a header block read into buf (len bytes). */
static int walk_has_subject(const char* buf, size_t len) {
    const char* end = buf + len;
    const char* line = buf;
    while (line < end) {
        const char* eol = memchr(line, '\n', (size_t)(end - line));
        if (eol == NULL) {
            eol = end;
        }
        if (eol == line || (eol == line + 1 && *line == '\r')) {
            return 0; /* the end of the header */
        }
        if ((size_t)(eol - line) >= 8 && strncasecmp(line, "Subject:", 8) == 0) {
            return 1;
        }
        line = eol + 1;
    }
    return 0;
}

static int walk_dir(const char* cur, const struct walk_uidmap* map, struct walk_totals* t,
                    int headers) {
    memset(t, 0, sizeof *t);
    DIR* dir = opendir(cur);
    if (dir == NULL) {
        return -1;
    }
    char block[8192];
    const struct dirent* entry;
    while ((entry = readdir(dir)) != NULL) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        walk_name(entry->d_name, map, t);
        if (headers) {
            int fd = openat(dirfd(dir), entry->d_name, O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                ssize_t got = read(fd, block, sizeof block);
                if (got > 0 && walk_has_subject(block, (size_t)got)) {
                    ++t->subjects;
                }
                close(fd);
            }
        }
    }
    closedir(dir);
    return 0;
}

int walk_floor_envelope(const char* cur, const struct walk_uidmap* map, struct walk_totals* t) {
    return walk_dir(cur, map, t, 0);
}

int walk_floor_headers(const char* cur, const struct walk_uidmap* map, struct walk_totals* t) {
    return walk_dir(cur, map, t, 1);
}
