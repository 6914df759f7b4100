#pragma once

// Work done ahead for another thread (files read and hashed ahead, patches made ahead, new
// files written ahead) runs at a lower priority than the thread that uses it: it fills the
// processor time that thread leaves, instead of taking turns from it while both are
// runnable. Lowers the calling thread's scheduling priority (its nice value) by
// kAheadNiceness; nothing else changes (a thread that waits for it still gets it done).
// False when the system refused, which leaves the thread as it was.
bool RunThisThreadBehind();

inline constexpr int kAheadNiceness = 10;
