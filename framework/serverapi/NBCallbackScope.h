// Marks the time a host callback of the library runs on this thread. Calls that spin
// a nested event loop refuse to run inside one: the loop could delete the reply whose
// signal is still on the stack.
#pragma once

class NBCallbackScope
{
public:
    NBCallbackScope();
    ~NBCallbackScope();
    NBCallbackScope(const NBCallbackScope&) = delete;
    NBCallbackScope& operator=(const NBCallbackScope&) = delete;

    // Whether a library callback runs on the calling thread, however deeply nested.
    static bool inside();
};
