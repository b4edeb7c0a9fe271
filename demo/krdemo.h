#ifndef KRDEMO_H
#define KRDEMO_H

// krdemo: a console tour of krutils. Each section starts a service, puts it to work on real
// data and tells what to look for in the log lines it prints.
//
// One source per group of sections (supervision, records, interaction, itemviews, workbooks),
// the crash on request in crash.cpp, the console in krdemo.cpp, and main.cpp runs them in order.

#include <QList>
#include <QMap>
#include <QString>
#include <QVariantMap>

#include <functional>

namespace krdemo {

// The console, shared by the main thread and the library's threads.
void say(const char *format, const QString &argument = QString());
void section(const char *title, const char *what);
// Prints the library's log lines indented under the section, with level and thread.
void printLogLine(QtMsgType type, const QMessageLogContext &, const QString &text);

// Lets queued work (log lines of finished threads, deferred deletes) run on the main thread.
void pumpEvents(int milliseconds);
// Waits, with the main thread's events running, until `done` holds (or ten seconds pass).
bool waitUntil(const std::function<bool()> &done);

// The trades of the record sections, as a table view holds them: one map of item data roles
// ("0" the text shown, "256" the raw value) per column. The workbook section exports them.
enum BlotterColumn { TradeId, Symbol, Side, Price, Quantity };
QList<QMap<int, QVariantMap>> demoBlotter();
// The columns of a trade line, aligned under tradeHeader().
QString tradeLine(const QString &id, const QString &symbol, const QString &side,
                  const QString &price, const QString &quantity);
QString tradeHeader();

// The sections, in the order of the tour.
void tourWorkerThreads(); // supervision.cpp
void tourLockMonitor();
void tourFunctionGuard();
void tourRecordFilter(); // records.cpp
void tourParameterFile();
void tourTokenBucket(); // interaction.cpp
void tourIds();
void tourShortcuts();
void tourTreeModel(); // itemviews.cpp
void tourWorkbooks(); // workbooks.cpp
void tourMonitorLog(); // supervision.cpp
void tourTerminalInformation(); // records.cpp
void tourAlertSounds(); // interaction.cpp

// `krdemo crash <kind>`: ends the demo the hard way; returns the exit code of a kind it does not
// know.
int crashOnPurpose(const QString &kind);

} // namespace krdemo

#endif // KRDEMO_H
