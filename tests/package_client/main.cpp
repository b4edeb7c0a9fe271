// Uses the installed package the way a client module does: the library's classes, its item
// model and view (Qt Widgets), the krdefine constants, and the LZ4 and POSIX threads interfaces
// that come with krutils. The same source is built with CMake, with qmake and with pkg-config.

#include <krdefine/krdefine.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrObject.h>
#include <krutils/TreeModel.h>
#include <krutils/TreeView.h>

#include <lz4.h>
#include <pthread.h>

#include <QApplication>
#include <QByteArray>
#include <QMutex>

#include <cstdio>

namespace {

int fail(const char *what)
{
    std::fprintf(stderr, "krutils_client: %s\n", what);
    return 1;
}

void *doubleIt(void *arg)
{
    *static_cast<int *>(arg) *= 2;
    return arg;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);

    QMutex mutex;
    {
        KrMutexLocker locker(&mutex, QStringLiteral("main.cpp"), __LINE__, QStringLiteral("main"));
        if (locker.mutex() != &mutex || mutex.tryLock())
            return fail("KrMutexLocker does not hold its mutex");
    }
    KrObject worker(true);
    worker.setThreadName(QStringLiteral("ClientWorker"));
    if (worker.thread() == app.thread())
        return fail("KrObject did not start its thread");
    if (Orvex_Values::CompareOperator::less == Orvex_Values::CompareOperator::greater)
        return fail("krdefine constants are not distinct");

    // An account with one position, shown in a tree view
    Utils::TreeModel model;
    model.setHeader({QStringLiteral("Account"), QStringLiteral("Symbol")});
    auto *account = new Utils::TreeItem({QStringLiteral("ACC-01"), QString()});
    account->appendChild(new Utils::TreeItem({QString(), QStringLiteral("IF2412")}));
    model.rootItem()->appendChild(account);
    Utils::TreeView view;
    view.setModel(&model);
    view.setActivationMode(Utils::SingleClickActivation);
    const QModelIndex position = model.index(0, 1, model.index(0, 0));
    if (model.data(position).toString() != QLatin1String("IF2412")
        || view.activationMode() != Utils::SingleClickActivation)
        return fail("the tree model or view does not work");

    // LZ4 round trip
    const QByteArray original = QByteArray("bid 101.25 ask 101.50 ").repeated(200);
    QByteArray compressed(LZ4_compressBound(original.size()), '\0');
    const int compressedSize = LZ4_compress_default(original.constData(), compressed.data(),
                                                    original.size(), compressed.size());
    QByteArray restored(original.size(), '\0');
    const int restoredSize = LZ4_decompress_safe(compressed.constData(), restored.data(),
                                                 compressedSize, restored.size());
    if (compressedSize <= 0 || compressedSize >= original.size() || restoredSize != original.size()
        || restored != original)
        return fail("LZ4 round trip failed");

    // POSIX threads round trip
    int value = 21;
    pthread_t thread;
    void *result = nullptr;
    if (pthread_create(&thread, nullptr, &doubleIt, &value) != 0
        || pthread_join(thread, &result) != 0 || result != &value || value != 42)
        return fail("pthread round trip failed");

    std::printf("krutils_client: classes, views, LZ4 (%d -> %d bytes) and pthreads work\n",
                int(original.size()), compressedSize);
    return 0;
}
