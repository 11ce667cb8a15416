// Lomi::forkGeneration: how an object made before a fork tells, in the child,
// that it was inherited.
//
// A forked child shares some kernel objects with its parent: an epoll
// instance, an inotify instance, a timerfd, the open file description behind
// a lock. Changing their registrations from the child (epoll_ctl DEL,
// inotify_rm_watch, timerfd_settime) changes them for the parent too. An
// object that holds such registrations records forkGeneration() when it makes
// them; a different value later means this process is a child that inherited
// the object, which must then let go of its memory and descriptors without a
// system call on the shared instances.
#pragma once

#include <cstdint>

namespace Lomi {

// A number that changes in every child made by fork() and never otherwise.
// The first call registers the handler that changes it, so a value recorded
// before a fork always differs from the one read in the child. One call is a
// function call and a load.
uint32_t forkGeneration();

}  // namespace Lomi
