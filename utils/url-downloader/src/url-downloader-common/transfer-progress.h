/* A request's progress: written by the transfer thread, read by any thread, without a lock. */
/* The cell lives in the request record, which outlives the transfer that
 * writes it; readers take it while the request is listed. Each field is read
 * and written whole (64-bit atomics, also on 32-bit ARM), so a poll never
 * waits for the transfer thread nor sees a torn value. */
#ifndef URL_DOWNLOADER_TRANSFER_PROGRESS_H
#define URL_DOWNLOADER_TRANSFER_PROGRESS_H

#include <stdint.h>

typedef struct ud_progress_t {
    int64_t received; /* body bytes written so far */
    int64_t expected; /* announced body size, -1 when unknown */
} ud_progress_t;

static inline void ud_progress_init(ud_progress_t* cell)
{
    __atomic_store_n(&cell->received, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&cell->expected, -1, __ATOMIC_RELAXED);
}

static inline void ud_progress_set_received(ud_progress_t* cell, int64_t received)
{
    __atomic_store_n(&cell->received, received, __ATOMIC_RELEASE); /* after the expected size */
}

static inline void ud_progress_set_expected(ud_progress_t* cell, int64_t expected)
{
    __atomic_store_n(&cell->expected, expected, __ATOMIC_RELAXED);
}

static inline void ud_progress_read(const ud_progress_t* cell, int64_t* received, int64_t* expected)
{
    *received = __atomic_load_n(&cell->received, __ATOMIC_ACQUIRE); /* bytes seen: their size is too */
    *expected = __atomic_load_n(&cell->expected, __ATOMIC_RELAXED);
}

#endif
