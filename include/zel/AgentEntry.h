// Plain-name entries of the library for the host agent (orvamgmtd), which
// loads the library with dlopen and resolves them with dlsym, as it does the
// plug-in entry. The agent does not link the library, so everything it needs
// beyond the plug-in interface is here as a C function: selecting the host,
// firing the platform's cluster events into the library's event registry,
// watching the cluster membership, and the control thread's ZelInit and
// ZelDeinit.
//
// No entry lets an exception escape: failures are logged through the
// library's log and reported by the result.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Selects the local service host of `home` (the library's own rule when
// null or empty: ZEL_HOME, else the default home) for the whole process,
// logging info lines, or everything when `verbose` is non-zero, to standard
// error. Returns 0, or -1 after logging why the home cannot be used.
int ZelSelectHostForHome(const char* home, int verbose);

// Run the handler registered for the event (nothing when none is) on the
// calling thread.
void ZelFireNokNicChange(void);
void ZelFireClusterLeave(void);
void ZelFireOrvaSystemRefresh(void);
// `nodeCount`: the cluster's members.
void ZelFireHostEnterMaintenanceMode(unsigned nodeCount);

// Runs on the directory's own thread; it must be quick and must not call
// back into the library.
typedef void (*ZelMembershipLeftCallback)(void* context);

// Watches the cluster membership in the selected host's directory and calls
// `onLeft` each time this host's member entry disappears after it was seen
// present. Returns a non-zero watch, or 0 after logging a failure.
// REQUIRES: the selected host stays selected while the watch lives (the
// watch uses its directory).
uint64_t ZelWatchLocalMembership(ZelMembershipLeftCallback onLeft, void* context);
// Ends a watch; once it returns `onLeft` will not run again. Unknown
// watches are ignored.
void ZelUnwatchLocalMembership(uint64_t watch);

// Holds this host's membership under a lease of host.json's
// "directory.leaseSeconds", renewed on a thread of the library, and calls
// `onLost` (on that thread; quick, no calls back into the library) each time
// the lease ran out before this host could renew it. Returns 0 after logging
// a failure to start, or when this host is not a cluster member (nothing to
// hold), else a non-zero hold. One hold at a time.
// REQUIRES: the selected host stays selected while the hold lives.
uint64_t ZelHoldLocalMembership(ZelMembershipLeftCallback onLost, void* context);
// Stops renewing (the lease then runs out by itself, unless an agent
// started again takes the membership over first); `onLost` will not run
// again. Unknown holds are ignored.
void ZelReleaseLocalMembership(uint64_t hold);

// Reads the interfaces the selected host's host.json declares ("nics") now,
// so that the library sees an edit without a restart. 1 when they changed
// (the caller raises the network change), 0 when they are as they were, -1
// after logging why host.json cannot be read (nothing changes then).
int ZelReloadDeclaredNics(void);

// Runs on the directory's own thread, under the same rules as
// ZelMembershipLeftCallback; `nodeCount` is the cluster's members.
typedef void (*ZelMaintenanceEnteredCallback)(void* context, unsigned nodeCount);

// Calls `onEntered` each time this host's member entry turns its
// maintenance flag on, and once at the first look when it is on already: a
// host in maintenance must hand over whatever it still owns, also after an
// agent's restart. Returns a non-zero watch, or 0 after logging a failure.
// REQUIRES: as for ZelWatchLocalMembership.
uint64_t ZelWatchLocalMaintenance(ZelMaintenanceEnteredCallback onEntered, void* context);
// Ends a watch; once it returns `onEntered` will not run again. Unknown
// watches are ignored.
void ZelUnwatchLocalMaintenance(uint64_t watch);

// Start and stop the background control thread when the kernel option
// "zelNokNicCtlEnable" of group "ORVA-iSCSI" is non-zero; nothing otherwise.
void ZelInit(void);
void ZelDeinit(void);

#ifdef __cplusplus
}  // extern "C"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

// The kernel option "zelNokNicCtlEnable" of group "ORVA-iSCSI"; 0 (also when
// the host never set it) means the control thread is not used.
int ZelGetNokNicCtlFlag();

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
#endif
