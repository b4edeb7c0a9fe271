#include "KrThread.h"

#include "KrLogging_p.h"
#include <krutils/CompleteExceptionHandler.h>

KrThread::KrThread(QObject *parent) : QThread(parent)
{
    connect(this, &QThread::started, this, &KrThread::slotInitThreadData, Qt::DirectConnection);
    connect(this, &QThread::finished, this,
            [this] { krDebug(KrThread) << objectName() << " thread finished"; });
}

KrThread::~KrThread() = default;

void KrThread::slotInitThreadData()
{
    krDebug(KrThread) << objectName() << " thread started";
    set_thread_exception_handlers();
}
