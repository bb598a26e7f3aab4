// Hands work from the focuser service's threads to libindi's event loop:
// an eventfd that the loop watches (IEAddCallback), and a queue of what to
// run there. Everything that touches INDI properties runs on the loop.
#pragma once

#include <deque>
#include <functional>
#include <mutex>

namespace zorindi {

class LoopBridge {
  public:
    static LoopBridge &instance();

    // From any thread: `task` runs on the event loop, in order of posting.
    void post(std::function<void()> task);

  private:
    LoopBridge();
    static void onReadable(int fd, void *self);
    void runPosted();

    int m_fd = -1;
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_tasks;
};

} // namespace zorindi
