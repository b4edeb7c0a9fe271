// KrCommonUtils: the plug-ins' parameter files and the text-file helpers they use.

#include "KrCommonUtils.h"

#include <QFile>
#include <QJsonDocument>
#include <QTextStream>

namespace {

const QString algoParamFolder = QStringLiteral("res/plugindata/algo/");
const QString indicatorParamFolder = QStringLiteral("res/plugindata/Indicatoration/");

// The file's top-level object, or the parser's code (-1 no text, -2 not JSON) in `code`.
KrRecord readParamFile(const QString &path, int &code)
{
    const QString text = KrCommonUtils::readAll(path);
    if (text.isEmpty()) {
        code = -1;
        return {};
    }
    QJsonDocument document;
    if (!KrCommonUtils::canCreateJsonDocu(document, text)) {
        code = -2;
        return {};
    }
    code = 0;
    return document.toVariant().toMap();
}

void appendRecords(const KrRecord &file, const char *member, QList<KrRecord> &records)
{
    const QVariantList elements = file.value(QLatin1String(member)).toList();
    for (const QVariant &element : elements)
        records.append(element.toMap());
}

} // namespace

int KrCommonUtils::praseAlgoParamJsonFile(const QString &fileName,
                                          QList<KrRecord> &initialBasicParams,
                                          QList<KrRecord> &initialParams,
                                          QList<KrRecord> &performParams,
                                          QList<KrRecord> &reportParams, QList<KrRecord> &logParams,
                                          KrRecord &monitorUiParams, KrRecord &createUiParams)
{
    int code = 0;
    const KrRecord file = readParamFile(algoParamFolder + fileName, code);
    if (code != 0)
        return code;
    appendRecords(file, "InitialBasicParam", initialBasicParams);
    appendRecords(file, "InitialParamList", initialParams);
    appendRecords(file, "PerformParam", performParams);
    appendRecords(file, "ReportParam", reportParams);
    appendRecords(file, "LogParam", logParams);
    createUiParams = file.value(QStringLiteral("CreateUIParam")).toMap();
    monitorUiParams = file.value(QStringLiteral("MonitorUIParam")).toMap();
    return 0;
}

int KrCommonUtils::praseIndicatorParamJsonFile(const QString &fileName,
                                               QList<KrRecord> &initialBasicParams,
                                               QList<KrRecord> &initialParams,
                                               QList<KrRecord> &reportParams,
                                               KrRecord &createUiParams)
{
    int code = 0;
    const KrRecord file = readParamFile(indicatorParamFolder + fileName, code);
    if (code != 0)
        return code;
    appendRecords(file, "InitialBasicParam", initialBasicParams);
    appendRecords(file, "InitialParamList", initialParams);
    appendRecords(file, "ReportParam", reportParams);
    createUiParams = file.value(QStringLiteral("CreateUIParam")).toMap();
    return 0;
}

bool KrCommonUtils::canCreateJsonDocu(QJsonDocument &doc, const QString &text)
{
    QJsonParseError error;
    doc = QJsonDocument::fromJson(text.toUtf8(), &error);
    return error.error == QJsonParseError::NoError;
}

QString KrCommonUtils::readAll(const QString &path)
{
    if (path.isEmpty())
        return {};
    QFile file(path);
    // a larger file is no parameter file, and its text could exceed what a QString holds
    if (!file.open(QIODevice::ReadOnly) || file.size() > MaxReadAllBytes)
        return {};
    return QString::fromUtf8(file.read(MaxReadAllBytes));
}

void KrCommonUtils::writeall(const QString &path, const QString &text)
{
    if (path.isEmpty())
        return;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        return;
    QTextStream stream(&file);
    stream.setCodec("utf-8");
    stream << text << "\r\n";
    stream.flush();
    file.close();
}
