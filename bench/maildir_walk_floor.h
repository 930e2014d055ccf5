/*
 * The C floor of MaildirWalkBench (maildir_walk_floor.c): a UID map read
 * from a ".dovecot-uidlist" and two walks over a Maildir's cur/ that report
 * the same fields as the library's walks. Usable from C and C++.
 */
#ifndef ZEMAIL_BENCH_MAILDIR_WALK_FLOOR_H
#define ZEMAIL_BENCH_MAILDIR_WALK_FLOOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct walk_slot {
    const char* name; /* into the map's text; NULL for an empty slot */
    uint32_t length;
    uint64_t uid;
};

struct walk_uidmap {
    char* text;
    struct walk_slot* slots;
    size_t mask;
    size_t count;
};

struct walk_totals {
    unsigned long messages;
    unsigned long known; /* files the map had a UID for */
    uint64_t uid_sum;
    uint64_t base_bytes; /* lengths of the base names */
    unsigned long seen;  /* files with the S letter */
    uint64_t flag_bits;  /* OR of every file's letters, bit c - 'A' */
    uint64_t date_sum;
    unsigned long subjects; /* headers walk: files with a Subject line */
};

/* 0, or -1 when the file cannot be read (the map is then empty). */
int walk_uidmap_load(struct walk_uidmap* map, const char* path);
void walk_uidmap_free(struct walk_uidmap* map);
/* The UID of a base name (the name up to its first ","); 0 when unknown. */
uint64_t walk_uidmap_find(const struct walk_uidmap* map, const char* name, size_t length);

/* Walk every file of the directory cur (names starting with "." are not
 * messages) and fill *totals; 0, or -1 when cur cannot be opened. The
 * headers walk also reads each file's first 8 KiB and counts Subject lines
 * in its header. */
int walk_floor_envelope(const char* cur, const struct walk_uidmap* map, struct walk_totals* totals);
int walk_floor_headers(const char* cur, const struct walk_uidmap* map, struct walk_totals* totals);

#ifdef __cplusplus
}
#endif

#endif
