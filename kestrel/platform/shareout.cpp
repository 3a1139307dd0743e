#include "platform/shareout_p.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kestrel::internal {

namespace {

class Helper
{
public:
    Helper() : m_thread([this] { serve(); }) { m_thread.detach(); }

    void run(qint64 chunks, const std::function<void(qint64)>& body)
    {
        std::unique_lock<std::mutex> owner(m_owner, std::try_to_lock);
        if (!owner.owns_lock()) {
            for (qint64 c = 0; c < chunks; ++c)
                body(c);
            return;
        }
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_body = &body;
            m_next = 0;
            m_total = chunks;
            m_done = 0;
            m_generation.store(m_generation.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        }
        m_wake.notify_one();
        const std::function<void(qint64)>* mine;
        qint64 c;
        while ((c = claim(&mine)) >= 0) {
            body(c);
            finish();
        }
        // Every chunk is taken; those the helper holds are being worked on. Wait for them
        // without spinning for long: on some machines a woken helper shares the caller's core.
        std::unique_lock<std::mutex> lock(m_lock);
        m_finished.wait(lock, [this] { return m_done == m_total; });
        m_body = nullptr;
    }

private:
    // The next chunk of the current work and the body it belongs to, or -1 when none is left.
    qint64 claim(const std::function<void(qint64)>** body)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        *body = m_body;
        if (!m_body || m_next >= m_total)
            return -1;
        return m_next++;
    }

    void finish()
    {
        bool last;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            last = ++m_done == m_total;
        }
        if (last)
            m_finished.notify_one();
    }

    void serve()
    {
        unsigned seen = 0;
        for (;;) {
            // Awake for a moment after work, then asleep until the next. The wait yields: where
            // the helper shares a core with its caller (some machines place a woken thread so),
            // the caller must not wait behind it.
            const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(500);
            int turns = 0;
            while (m_generation.load(std::memory_order_acquire) == seen) {
                std::this_thread::yield();
                if (++turns % 16 == 0 && std::chrono::steady_clock::now() > until) {
                    std::unique_lock<std::mutex> lock(m_lock);
                    m_wake.wait(lock, [&] { return m_generation.load(std::memory_order_relaxed) != seen; });
                    break;
                }
            }
            seen = m_generation.load(std::memory_order_acquire);
            // A body stays valid while a chunk of it is held: its caller waits for them all.
            const std::function<void(qint64)>* body;
            qint64 c;
            while ((c = claim(&body)) >= 0) {
                (*body)(c);
                finish();
            }
        }
    }

    std::mutex m_owner; // held by the one caller the helper serves
    std::mutex m_lock;  // the fields below
    std::condition_variable m_wake, m_finished;
    const std::function<void(qint64)>* m_body = nullptr;
    qint64 m_next = 0, m_total = 0, m_done = 0;
    std::atomic<unsigned> m_generation{0};
    std::thread m_thread;
};

} // namespace

void shareOut(qint64 chunks, const std::function<void(qint64)>& body, bool share)
{
    static const bool alone = std::thread::hardware_concurrency() < 2;
    if (!share || chunks <= 1 || alone) {
        for (qint64 c = 0; c < chunks; ++c)
            body(c);
        return;
    }
    // Made at first use and never destroyed: its thread may be asleep in it when the process ends.
    static Helper* helper = new Helper;
    helper->run(chunks, body);
}

} // namespace kestrel::internal
