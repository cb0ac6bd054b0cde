#include "ui/worker_thread.h"

namespace plim {

WorkerThread::WorkerThread(const char* name)
{
    m_thread.setObjectName(name);
    m_context = new QObject;
    m_context->moveToThread(&m_thread);
    m_thread.start();
}

WorkerThread::~WorkerThread()
{
    finish();
}

void WorkerThread::post(std::function<void()> work, bool wait)
{
    QMetaObject::invokeMethod(m_context, std::move(work), wait ? Qt::BlockingQueuedConnection : Qt::QueuedConnection);
}

void WorkerThread::finish(std::function<void()> last)
{
    if (!m_context)
        return;
    post(
        [this, last = std::move(last)] {
            if (last)
                last();
            qDeleteAll(m_context->children());
        },
        true);
    m_thread.quit();
    m_thread.wait();
    delete m_context;
    m_context = nullptr;
}

} // namespace plim
