#pragma once

#include <QELNetworkKit/Export.h>
#include <stdint.h>

// Not part of QELNetworkKit.h, because of the plain names of its variables.

#ifdef __cplusplus
extern "C" {
#endif

/// What qelNKPing() returns when a reply is missed: its escape.
#define QELNK_PING_ESCAPE 0x9A2112

/// Pings a host as the command line tool does: `argv` holds the program's name (of no account), options and the host,
/// `argc` of them. It prints to standard output and standard error.
///
/// When a reply is missed, which is noticed as the next request goes out, about two seconds later, it prints "ESCAPE!"
/// and returns QELNK_PING_ESCAPE, unless it is quiet (-q). Everything else ends the process, as befits a tool: a count
/// that is reached, SIGINT or a timeout (-t) with the statistics and exit code 0, or 2 when no reply came; mistakes
/// with 64, a host that is not known with 68, a system call that fails with 71, what only root may do with 77. Hosts
/// that only want to know whether a machine answers use QELNKPingleton.
///
/// Root's runs use a raw socket, others' the system's datagram kind, which the setting net.ipv4.ping_group_range has to
/// allow.
///
/// Threads: any, several at once. Signals are handled for the process, by the runs of this function alone.
QELNK_EXPORT int32_t qelNKPing(int argc, char *const argv[]);

/// Has a program read the library's variables where they are, instead of having copies of its own.
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#define QELNK_OF_LIBRARY __attribute__((nodirect_extern_access))
#else
#define QELNK_OF_LIBRARY
#endif

// What the runs of this process have seen; for looking, each a number of its own, written by whichever run is at it.

/// Requests sent in the run that last changed it, 0 after an escape.
extern QELNK_EXPORT QELNK_OF_LIBRARY int64_t ntransmitted;
/// Replies received in the run that last changed it, 0 after an escape.
extern QELNK_EXPORT QELNK_OF_LIBRARY int64_t nreceived;
/// The shortest round trip of all replies, in milliseconds; 999999999.0 before the first. Never set back.
extern QELNK_EXPORT QELNK_OF_LIBRARY double tmin;
/// The longest round trip of all replies, in milliseconds. Never set back.
extern QELNK_EXPORT QELNK_OF_LIBRARY double tmax;
/// The sum of the round trips of all replies, in milliseconds. Never set back.
extern QELNK_EXPORT QELNK_OF_LIBRARY double tsum;
/// The sum of their squares. Never set back.
extern QELNK_EXPORT QELNK_OF_LIBRARY double tsumsq;
/// The options of the run that last began, a sum of QELNKPingOption.
extern QELNK_EXPORT QELNK_OF_LIBRARY uint32_t options;
/// Milliseconds between requests of the run that last began.
extern QELNK_EXPORT QELNK_OF_LIBRARY int32_t interval;
/// Milliseconds for which the run that last began waits for the last reply.
extern QELNK_EXPORT QELNK_OF_LIBRARY int32_t waittime;

/// Bits of `options`, by the letters of the command line.
enum QELNKPingOption {
  QELNKPingBellOnMissed = 1 << 0,        ///< -A
  QELNKPingBell = 1 << 1,                ///< -a
  QELNKPingBoundInterface = 1 << 2,      ///< -b
  QELNKPingCount = 1 << 3,               ///< -c
  QELNKPingDontFragment = 1 << 4,        ///< -D
  QELNKPingDebug = 1 << 5,               ///< -d
  QELNKPingFlood = 1 << 6,               ///< -f
  QELNKPingSweep = 1 << 7,               ///< -G
  QELNKPingMulticastInterface = 1 << 8,  ///< -I
  QELNKPingInterval = 1 << 9,            ///< -i
  QELNKPingNoLoopback = 1 << 10,         ///< -L
  QELNKPingPreload = 1 << 11,            ///< -l
  QELNKPingMask = 1 << 12,               ///< -M m
  QELNKPingTime = 1 << 13,               ///< -M t
  QELNKPingTTL = 1 << 14,                ///< -m
  QELNKPingNumeric = 1 << 15,            ///< -n
  QELNKPingOnce = 1 << 16,               ///< -o
  QELNKPingPattern = 1 << 17,            ///< -p
  QELNKPingSomewhatQuiet = 1 << 18,      ///< -Q
  QELNKPingQuiet = 1 << 19,              ///< -q
  QELNKPingRecordRoute = 1 << 20,        ///< -R
  QELNKPingBypassRouting = 1 << 21,      ///< -r
  QELNKPingSource = 1 << 22,             ///< -S
  QELNKPingMulticastTTL = 1 << 23,       ///< -T
  QELNKPingVerbose = 1 << 24,            ///< -v
  QELNKPingWaitTime = 1 << 25,           ///< -W
  QELNKPingTypeOfService = 1 << 26       ///< -z
};

#ifdef __cplusplus
}
#endif
