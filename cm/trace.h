// Static tracepoints of the library (USDT, provider "quorvin").
//
// Each QV_TRACEn(name, ...) is one no-op instruction plus a note in
// .note.stapsdt that tells perf, bpftrace, SystemTap and gdb where it sits and
// where its arguments live; nothing runs until a tracer attaches. Built
// without QUORVIN_TRACEPOINTS (the CMake option), or without <sys/sdt.h>,
// the macros expand to nothing and their arguments are not evaluated.
//
// The probes, their arguments, and what they mean (docs/debugging.md):
//   request__queued(request, service, thread)    appended to the request list
//   request__dispatched(request, service)         handed to its class function
//   request__completed(request, status)           reply byte written
//   parked(thread, object, service, wait option)  hung on an object's suspend list
//   released(thread, object, how, status)         taken off it; how: 1 success,
//                                                 2 time-out, 3 abort, 4 delete or flush
//   mutex__handover(mutex, from, to)              every change of owner (NULL: free)
//   thread__created(handle, name)  thread__started(handle, kernel tid)
//   thread__suspended(handle)  thread__resumed(handle)
//   thread__terminated(handle)  thread__deleted(handle)
//   timer__expired(timer, name, input)            before the expiration function runs
//   tick(pending ticks)                           the timer thread takes one tick
#pragma once

#if defined(QUORVIN_TRACEPOINTS) && QUORVIN_TRACEPOINTS && __has_include(<sys/sdt.h>)
#include <sys/sdt.h>
#define QV_TRACE1(name, a) DTRACE_PROBE1(quorvin, name, a)
#define QV_TRACE2(name, a, b) DTRACE_PROBE2(quorvin, name, a, b)
#define QV_TRACE3(name, a, b, c) DTRACE_PROBE3(quorvin, name, a, b, c)
#define QV_TRACE4(name, a, b, c, d) DTRACE_PROBE4(quorvin, name, a, b, c, d)
#else
#define QV_TRACE1(name, a) ((void)0)
#define QV_TRACE2(name, a, b) ((void)0)
#define QV_TRACE3(name, a, b, c) ((void)0)
#define QV_TRACE4(name, a, b, c, d) ((void)0)
#endif
