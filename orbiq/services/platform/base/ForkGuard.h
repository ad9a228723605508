#pragma once

namespace orbiq {

/// From now on a child that this process forks knows that it is one. A child goes on with the
/// locks, but without the threads, of its parent, and shares the parent's descriptors, so the
/// library keeps still in it. Any thread; further calls do nothing.
void armForkGuard();

/// True in a child that was forked (without an exec) after the arming, and in its children. A child
/// forked before, that arms the guard itself, is a process like any other. Never blocks.
bool inForkedChild() noexcept;

}  // namespace orbiq
