// Files transferred several at once (--transfers N): each on a thread of its own with
// its own request runner and its own view of the remote tree, as the library lets any
// thread with an event loop start requests. What each transfer reports is handed to the
// calling thread, which alone writes to the console; at most one heavy transfer (a file
// of many chunks or ranges, which keeps `jobs` requests in flight by itself) runs at a
// time, so that memory stays what one file needs. Ctrl-C on the calling thread stops
// every thread's requests.
#pragma once

#include "Failure.h"

#include <functional>

class RemoteTree;
class RequestRunner;

class TransferPool
{
public:
    // What a transfer gives back, run on the calling thread (its report).
    using Publish = std::function<void()>;
    // Transfer `index` through `tree`, on any thread; throws the Failure that stopped it.
    using Work = std::function<Publish(int index, RemoteTree& tree)>;

    TransferPool(RequestRunner& runner, RemoteTree& tree, int threads);

    // Runs transfers 0 .. count - 1 and returns once every one ended, each one's report
    // or `failed` run here as it ends and `tick` now and then. Throws when interrupted.
    void run(int count, const std::function<bool(int)>& heavy, const Work& work,
        const std::function<void(int, const Failure&)>& failed, const std::function<void()>& tick);

private:
    void runHere(int count, const Work& work, const std::function<void(int, const Failure&)>& failed);

    RequestRunner& m_runner;
    RemoteTree& m_tree;
    int m_threads;
};
