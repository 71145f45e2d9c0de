/*
 * libvelmora-urldownloader extension: transport security, limits, trace
 * control, failure reasons and progress. Opt-in: a client that never calls
 * these functions gets exactly the behaviour described in url-downloader.h
 * (no certificate check, no time-out, libcurl's trace on standard error).
 *
 * Settings made here apply to transfers set up after the call; transfers
 * already running keep theirs. Every function may be called from any thread.
 * A refused call logs an error line and changes nothing. Strings passed in
 * are copied. This header is valid C99 and C++.
 */
#ifndef VELMORA_URL_DOWNLOADER_EXTENSION_H
#define VELMORA_URL_DOWNLOADER_EXTENSION_H

#include <stdbool.h>
#include <stdint.h>

#include "url-downloader.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Transport security of a service's transfers. All zero: the default (no check, any protocol). */
typedef struct url_downloader_transport_t {
    bool verifyPeer;      /**< verify the server's certificate chain and its host name; a failure ends the request */
    const char* caFile;   /**< PEM file of the CAs to trust instead of the system's store; NULL: the system's */
    const char* caFolder; /**< folder of hashed CA certificates (openssl rehash) to trust as well; NULL: none */
    bool httpOnly;        /**< only http:// and https:// URLs, for the request and every redirection */
} url_downloader_transport_t;

/**
 * Sets the transport security of the service's transfers (replacing what an
 * earlier call set). With verifyPeer, a server whose certificate does not
 * chain to a trusted CA or does not name the URL's host fails the request
 * with 6 (its reason: curlCode 60). caFile and caFolder need verifyPeer.
 * With httpOnly, any other scheme (file://, ftp://, dict://, ...) fails the
 * request with 6 (curlCode 1), also when a server redirects to it.
 * Returns 0; 1 (NULL or unknown service, NULL transport, a CA without
 * verifyPeer); 3 (caFile not a readable regular file, caFolder not a
 * readable folder); 17 (finalizing).
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_set_transport(url_downloader_h service,
                                                                     const url_downloader_transport_t* transport);

/** Limits of a service's transfers. All zero: no limits (the default). */
typedef struct url_downloader_limits_t {
    int32_t connectTimeout; /**< seconds to connect, TLS handshake included; 0: libcurl's own (300 s) */
    int32_t stallTimeout;   /**< seconds: ends a transfer that received less than one byte a second over
                                 that long, a server that never answers included; 0: never */
    int32_t maxRedirects;   /**< redirections followed at most; 0: no limit; -1: none is followed */
    int64_t maxBodySize;    /**< body bytes at most; 0: no limit */
} url_downloader_limits_t;

/** The longest time a limit takes: 24 days in seconds. */
#define URL_DOWNLOADER_LIMIT_MAX_SECONDS 2147483

/**
 * Sets the limits of the service's transfers (replacing what an earlier
 * call set). A transfer that hits one ends with 6, like any transfer error;
 * its reason tells which: curlCode 28 for a time, 47 for redirections, 63
 * for the body size. A body larger than maxBodySize keeps its first
 * maxBodySize bytes at most on disk (a failed transfer's file is not removed).
 * Returns 0; 1 (NULL or unknown service, NULL limits, a negative or too
 * long time, maxRedirects below -1, a negative maxBodySize); 17.
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_set_limits(url_downloader_h service,
                                                                  const url_downloader_limits_t* limits);

/** Where libcurl's trace of each transfer goes. */
typedef enum {
    URL_DOWNLOADER_TRACE_STDERR = 0, /**< libcurl's verbose trace on standard error (the default) */
    URL_DOWNLOADER_TRACE_OFF = 1,    /**< no trace */
    URL_DOWNLOADER_TRACE_LOG = 2     /**< the platform log, at debug priority: text and headers, never body bytes */
} url_downloader_trace_t;

/**
 * Chooses where libcurl's trace goes, for every service of the process, also
 * across finalization; at once, for running transfers too. Credentials in
 * authorization headers are masked in every mode.
 * Returns 0 or 1 (unknown mode).
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_set_trace(url_downloader_trace_t mode);

/** Why a request ended. */
typedef struct url_downloader_reason_t {
    int32_t httpStatus;   /**< status of the last response received; 0: none (no connection, cache, cancelled) */
    int32_t curlCode;     /**< libcurl's result for the transfer (CURLcode); 0: success or no transfer ran */
    const char* curlText; /**< libcurl's text for curlCode; static, never NULL */
    int64_t bytesWritten; /**< body bytes this request wrote into its file */
    bool fromCache;       /**< answered from the URL cache, without a transfer */
} url_downloader_reason_t;

/**
 * Copies why the request ended into *reason. Only while the request's
 * callback runs, like its file path: the handle is dead once it returns.
 * A download failure (6) shows here as a status other than 200, a libcurl
 * result, or no body written.
 * Returns 0; 1 (NULL or unknown service, reason NULL); 15 (NULL or dead
 * request, another service's request, or its callback is not running); 17.
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_get_reason(url_downloader_h service,
                                                                  url_downloader_api_h request,
                                                                  url_downloader_reason_t* reason);

/** How far a request has come. */
typedef struct url_downloader_progress_t {
    int64_t received; /**< body bytes received and written so far */
    int64_t expected; /**< the body's size as the server announced it; -1: not known (yet) */
} url_downloader_progress_t;

/**
 * Copies the progress of a request into *progress, from submission until its
 * callback has returned (all zero but expected -1 before its body starts;
 * nothing for a request answered from the cache). Takes no lock the transfer
 * holds and logs nothing on success: cheap enough to poll often, for
 * thousands of requests.
 * Returns 0; 1 (NULL or unknown service, progress NULL); 15 (NULL or dead
 * request, or another service's request); 17.
 */
URL_DOWNLOADER_API url_downloader_error url_downloader_get_progress(url_downloader_h service,
                                                                    url_downloader_api_h request,
                                                                    url_downloader_progress_t* progress);

#ifdef __cplusplus
}
#endif

#endif /* VELMORA_URL_DOWNLOADER_EXTENSION_H */
