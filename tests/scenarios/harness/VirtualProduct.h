#ifndef VIRTUALPRODUCT_H
#define VIRTUALPRODUCT_H

#include "HubClient.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <QVector>

#include <functional>
#include <memory>

/**
 * One virtual product for one test case, with scripted PulseAudio unless told otherwise.
 *
 * The journal is read from a cursor on, which every expect() moves past the entry that it found:
 * a case reads as the story it tells. Waiting ends with the entry, or fails the test after a
 * generous time. After the first failure everything here returns at once, so that a case ends
 * soon; the journal's tail is then printed and the folder kept.
 */
class VirtualProduct
{
public:
    /// Where in a test something is asked for; failures are reported there.
    struct Place
    {
        const char *file;
        int line;
    };
#define HERE_BY_DEFAULT Place place = {__builtin_FILE(), __builtin_LINE()}

    /**
     * Fields that an entry must have. A text that ends in "*" fits what begins so, and an array
     * fits an array whose first values fit its own.
     */
    using Pattern = QJsonObject;
    using Predicate = std::function<bool(const QJsonObject &entry)>;

    /// What is to hold before the service starts.
    struct Options
    {
        QJsonObject settings; ///< "BLUETOOTH/bt-enable" and the like
        QStringList environment; ///< "ULMO_BT_ENABLE=1" and the like, for the service
        QStringList tell; ///< control lines carried out before the service starts
        bool realPulse = false;
        bool startService = true;
        QByteArray settingsFile; ///< the whole file, instead of settings
    };

    explicit VirtualProduct(const Options &options, HERE_BY_DEFAULT);
    VirtualProduct(HERE_BY_DEFAULT);
    ~VirtualProduct();

    /// The programs virtual-product and product-control, for outside.
    static QString launcher();
    static QString control();
    /// Whether this machine can run a virtual product; otherwise \p reason says why not.
    static bool isPossible(QString *reason);

    /// Carries out a control line and returns its answer; a refused one fails the test.
    QString tell(const QString &line, HERE_BY_DEFAULT);
    /// The error text of a control line that must be refused.
    QString tellRefused(const QString &line, HERE_BY_DEFAULT);
    /// The answer to a control line that may be refused: "ok" or "error", and a call's "values".
    QJsonObject attempt(const QString &line, HERE_BY_DEFAULT);
    /// Calls the service ("SetVolume", {"i:40"}) and returns the values of its reply.
    QJsonArray call(const QString &method, const QStringList &arguments = {}, HERE_BY_DEFAULT);

    /// Waits for the next entry that fits, moves the cursor past it and returns it.
    QJsonObject expect(const Pattern &pattern, HERE_BY_DEFAULT);
    QJsonObject expect(const QString &what, const Predicate &predicate, HERE_BY_DEFAULT);
    /// The same for a log line of the service with exactly this level and message.
    QJsonObject expectLog(int level, const QString &message, HERE_BY_DEFAULT);
    /// The same for the start of a program with this command line ("hciconfig hci0 up").
    QJsonObject expectCommand(const QString &commandLine, HERE_BY_DEFAULT);
    /// The same for the log lines \p messages of one level, with anything in between.
    void expectLogs(int level, const QStringList &messages, HERE_BY_DEFAULT);
    /// Everything that is in the journal by now, as a position to look back to.
    int mark();
    /// Puts the cursor to a position that mark() gave; 0 is the beginning.
    void rewind(int position);

    /// Lets go of the journal so far, in runs that take long; positions begin at 0 again.
    void forget();

    /// All entries so far that fit, from \p from to the cursor's end of the journal.
    QVector<QJsonObject> entries(const Pattern &pattern, int from = 0);
    /// The command lines of all programs started so far from \p from on, in order.
    QStringList commands(int from = 0);
    /// The messages of all log lines so far from \p from on, in order.
    QStringList messages(int from = 0);

    /// Waits for the end of the service: its exit status, or its signal as a negative number.
    int serviceExit(HERE_BY_DEFAULT);

    /// The folder where the product shows itself.
    QString folder() const
    {
        return m_folder->path();
    }
    QString settingsFile() const
    {
        return folder() + "/settings.ini";
    }
    /// The settings file as it is now: "BLUETOOTH/bt-pid" and the like.
    QJsonObject settings() const;
    /// Addresses for a bus client of the test's own.
    QString sessionBusAddress() const
    {
        return "unix:path=" + folder() + "/session_bus";
    }
    QString systemBusAddress() const
    {
        return "unix:path=" + folder() + "/system_bus";
    }

    /// Program and arguments of an entry.
    static QString commandLine(const QJsonObject &entry);
    static Pattern log(int level, const QString &message);
    static Pattern command(const QString &commandLine);
    /// A message on a bus: kind "call", "reply", "error" or "signal".
    static Pattern message(const QString &kind, const QString &member);
    static bool fits(const QJsonObject &entry, const Pattern &pattern);

private:
    void start(const Options &options, const Place &place);
    bool writeSettings(const Options &options);
    void fail(const QString &text, const Place &place);
    /// Reads on until \p arrived or the time is over.
    bool waitUntil(const std::function<bool()> &arrived);
    QJsonObject answerTo(const QJsonObject &request, const Place &place);
    void failOnReports() const;
    void printTail() const;

    std::unique_ptr<QTemporaryDir> m_folder;
    QProcess *m_launcher = nullptr;
    HubClient m_hub;
    int m_cursor = 0;
    bool m_failed = false;
};

#undef HERE_BY_DEFAULT

/**
 * Main program of a scenario. Where virtual products are not possible it says so and ends with
 * status 77, which the test driver counts as skipped.
 */
int runScenario(QObject *test, int argc, char **argv);

#define SCENARIO_MAIN(Test)                                                                        \
    int main(int argc, char **argv)                                                                \
    {                                                                                              \
        QCoreApplication application(argc, argv);                                                  \
        Test test;                                                                                 \
        return runScenario(&test, argc, argv);                                                     \
    }

#endif
