#ifndef KRFUNCTIONGUARD_H
#define KRFUNCTIONGUARD_H

#include <krutils/krutils_export.h>

#include <QObject>
#include <QString>

#include <memory>

struct KrFunctionGuardPrivate;

/// A scope guard for functions that may run long.
///
/// Placed at the top of a function, it logs the entry, registers itself with the function-guard
/// monitor (KrFunctionGuardManager) with a time budget in seconds (60 when timeout <= 0), and on
/// leaving logs the elapsed milliseconds and deregisters. Once the monitor is started, a guard that
/// is still alive after its budget is named in a warning while the function is still running.
///
///     void OrderBook::rebuild()
///     {
///         KrFunctionGuard guard(QStringLiteral("OrderBook"), QStringLiteral("rebuild"), false, 5);
///         ...
///     }
///
/// Create guards on the stack, on any thread. The flag is kept for the caller (flag()) and has no
/// effect on the guard.
class KRUTILS_EXPORT KrFunctionGuard : public QObject
{
    Q_OBJECT

public:
    /// `first` and `second` name the guarded function in the log and in the monitor's warning
    /// (usually the class and the function); `timeout` is its budget in seconds.
    KrFunctionGuard(const QString &first, const QString &second, bool flag, int timeout);
    ~KrFunctionGuard() override;

    /// The flag given to the constructor.
    bool flag() const;

private:
    Q_DISABLE_COPY(KrFunctionGuard)

    const std::unique_ptr<KrFunctionGuardPrivate> d;
};

#endif // KRFUNCTIONGUARD_H
