#ifndef CKRUUID_H
#define CKRUUID_H

#include <krutils/krutils_export.h>

#include <QList>
#include <QObject>
#include <QString>

/// The process-wide generator of unique string ids that carry the logged-in user's name, for
/// request and order references:
///
///     CKrUUID::GetInstance()->setLoginName(QStringLiteral("trader01"));
///     CKrUUID::GetInstance()->GetUuid();   // "trader01-3f2b6c1e9a0d4e5f8a7b6c5d4e3f2a1b"
///
/// An id is the login name, a hyphen and the 32 lower-case hexadecimal digits of a new random
/// UUID; with no login name set it starts with the hyphen.
///
/// Threads: GetUuid() may be called from several threads at once, as long as nobody calls
/// setLoginName() meanwhile. The instance lives until the process exits.
class KRUTILS_EXPORT CKrUUID : public QObject
{
    Q_OBJECT

public:
    /// The instance, created on the first call.
    static CKrUUID *GetInstance();

    /// A new id; every call draws a new random UUID.
    QString GetUuid();
    /// The login name that starts every id; empty until set.
    QString getLoginName() const;
    /// Sets the login name for the ids made from now on.
    void setLoginName(const QString &name);

private:
    explicit CKrUUID(QObject *parent = nullptr);
    Q_DISABLE_COPY(CKrUUID)

    friend class tst_CKrUUID;

    // The local date and time as "yyyyMMddhhmmsszzz" followed by the number of stamps taken
    // earlier within the same millisecond. Not thread-safe.
    QString GetDataTime();

    // The hardware addresses of the interfaces that are up, not loop-back and not all zero,
    // joined without separators.
    QString GetMac();

    struct InterfaceFacts
    {
        bool isUp;
        bool isLoopBack;
        QString hardwareAddress;
    };
    static QString joinHardwareAddresses(const QList<InterfaceFacts> &interfaces);

    quint64 sequence;
    int lastTime;
    QString loginName;
};

#endif // CKRUUID_H
