#pragma once

namespace vesk {

class VeskQueue;

/**
 * The queue whose looper this thread is; null on every other thread, and on a looper whose queue
 * was destroyed inside the host's callback. Compared, never dereferenced.
 */
extern thread_local VeskQueue const* gLoopingQueue;

}  // namespace vesk
