#pragma once

// The alternate signal stack of a thread: where a fault handler runs when the thread has used up
// its own stack, so that a stack overflow can still be reported. Each thread sets up its own;
// the stack belongs to the thread and is released when the thread ends. Windows reserves room
// for its exception filter itself, so there this is a no-op.
class SignalStack
{
public:
    // Gives the calling thread an alternate signal stack. One that is already there (the host's,
    // a sanitizer's, or ours from an earlier call) is kept as it is: whoever installed it frees
    // it. Returns false when no stack could be set up.
    static bool ensureForCurrentThread();
};
