/* The library's lifecycle: the state word and the gate of the public calls. */
/* Shared by registration, request submission, delivery and the processing
 * thread: the state word, and the guard that public calls hold while they
 * use library state. */
#ifndef URL_DOWNLOADER_LIBRARY_LIFECYCLE_H
#define URL_DOWNLOADER_LIBRARY_LIFECYCLE_H

#include "url-downloader-private.h"

/* The state word is read by every public call without a lock; atomic access
 * keeps those reads, and the stores of other threads, well defined. */
static inline int _url_downloader_load_state(void) { return __atomic_load_n(&url_downloader_state, __ATOMIC_SEQ_CST); }

static inline void _url_downloader_store_state(int state)
{
    __atomic_store_n(&url_downloader_state, state, __ATOMIC_SEQ_CST);
}

/* Moves the state from not started to started. A finalization that has
 * already set destroying keeps it: a plain test-then-store could overwrite it. */
static inline void _url_downloader_mark_started(void)
{
    int expected = URL_DOWNLOADER_STATE_NOT_STARTED;
    __atomic_compare_exchange_n(&url_downloader_state, &expected, (int)URL_DOWNLOADER_STATE_STARTED, false,
                                __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

/* Held by a public call (other than registration and finalization) for as
 * long as it uses the request list, the locks or the pipe. Bringing the
 * library up and taking it down wait for these calls to end and keep new ones
 * out, so that no call meets a lock, pipe or list while it is made or
 * destroyed. A call made while the library is being finalized does not wait
 * for that: it is refused at once (unless it asks to wait). */
class UdPublicCall {
public:
    explicit UdPublicCall(bool refuse_while_finalizing = true);
    ~UdPublicCall();
    UdPublicCall(const UdPublicCall&) = delete;
    UdPublicCall& operator=(const UdPublicCall&) = delete;

    /* Whether the call got in and the library is up. When it is not, no
     * handle can be valid and the list lock must not be touched. */
    bool LibraryUp() const { return entered_ && up_; }

    /* The checks of every call that names a service, after its NULL tests:
     * the library is not being finalized (17) and the service is registered
     * (1). Returns 0 when the call may go on; the caller logs a refusal
     * with Refusal(). */
    url_downloader_error CheckService(url_downloader_h service) const;
    /* The first of those checks, and 1 when the library is not up; for calls
     * that look the handle up themselves, without the validator's lines. */
    url_downloader_error CheckLibrary() const;
    /* The log text of a refusal by CheckService. */
    static const char* Refusal(url_downloader_error error);

private:
    bool entered_;
    bool up_;
};

#endif
