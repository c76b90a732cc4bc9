// Start-up, liveness and stop notices for a service manager.
//
// Installed as a service, the server is started by a manager that hands it a datagram socket
// in $NOTIFY_SOCKET. Three notices go there:
//  - READY=1 once, the first time the instrument is ready ("#READY?" answers 1: the scan loop
//    has the comb where it wants it). Until then the manager reports the service as starting,
//    so "started" means measuring, not merely listening.
//  - WATCHDOG=1 from the acquisition loop, at most twice a second. A loop that stops coming
//    round (a deadlock, a pass that never ends) stops the notices, and the manager restarts
//    the server. A card that merely delivers nothing keeps the loop coming round: that case
//    belongs to the acquisition watchdog (server/WatchdogTick.h).
//  - STOPPING=1 when the acquisition loop ends, before the slower tear-down.
// Without $NOTIFY_SOCKET (or in a build without the manager's library) every call does nothing.
// Each notice is one local datagram, which the manager reads at once; at two a second its
// queue never fills, so the acquisition thread never waits on it. The calls are safe from any
// thread.
#pragma once

// Called by every pass of the acquisition loop with the instrument's ready state.
void NotifyServiceAcquisition(bool ready);

// Called once the acquisition loop has ended.
void NotifyServiceStopping();
