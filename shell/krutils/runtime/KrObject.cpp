#include "KrObject.h"

#include "KrThread.h"

KrObject::KrObject(bool bThread, QObject *parent) : QObject(parent)
{
    if (!bThread)
        return;

    setParent(nullptr); // an object with a parent cannot move to another thread
    m_thread = new KrThread;
    moveToThread(m_thread);
    connect(m_thread, &QThread::finished, m_thread, &QObject::deleteLater);
    m_thread->start(QThread::InheritPriority);
}

KrObject::~KrObject()
{
    quitThread();
}

void KrObject::quitThread()
{
    if (!m_thread || !m_thread->isRunning())
        return;
    m_thread->quit();
    m_thread->wait(static_cast<unsigned long>(m_waitTime));
}

void KrObject::setThreadName(const QString &name)
{
    if (m_thread)
        m_thread->setObjectName(name);
}

void KrObject::setWaitTime(int msec)
{
    m_waitTime = msec;
}
