// The thread that does all of a central's D-Bus work: it processes the
// connection's incoming messages (signal handlers and method replies run
// here) and runs the tasks that other threads post, so the connection is
// only ever touched from this one thread.
#pragma once

#include <sdbus-c++/IConnection.h>

#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

class DBusLoop {
public:
    using Task = std::function<void()>;

    // `bus` may be null: the loop then runs posted tasks only. `onBusLost`
    // runs on the loop once the connection has failed for good.
    DBusLoop(sdbus::IConnection *bus, Task onBusLost);
    // Stops the thread as stop() does.
    ~DBusLoop();
    DBusLoop(const DBusLoop &) = delete;
    DBusLoop &operator=(const DBusLoop &) = delete;

    void post(Task task);
    bool isLoopThread() const { return std::this_thread::get_id() == m_thread.get_id(); }
    // Stops the thread and joins it (from another thread): the tasks posted
    // before run and the messages they queued are sent first; later tasks
    // never run. Loops still running at exit are stopped so, which is how a
    // request posted just before the process ends still leaves it.
    void stop();

private:
    void run();
    // Runs the tasks posted so far; false once the loop is to stop.
    bool runTasks();
    void processMessages();
    void flushOutgoing();
    void waitForActivity();
    // The connection's poll data; nothing once it has closed.
    std::optional<sdbus::IConnection::PollData> pollData();

    sdbus::IConnection *m_bus;
    Task m_onBusLost;
    int m_wakeFd;

    std::mutex m_mutex;
    std::deque<Task> m_tasks;
    bool m_stopping = false;

    std::thread m_thread;
};
