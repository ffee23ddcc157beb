#include "Bench.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QtTest>

namespace {

/// How far a delay of product time may be off. Timers never come early, but the line before may be
/// read late; how late they come is the machine's business.
const int MayBeEarly = 500;
const int MayBeLate = 3000;

} // namespace

/**
 * Runs the scripts of a file, which say what is done to the virtual daemon, and the messages that
 * it must send meanwhile, in order:
 *
 *   == BACKENDS: TITLE begins a script for the back-ends "mgmt", "hci" or both
 *   > ACTION           start | agent | stop | stop-agent | option KEY VALUE|[JSON]
 *                      unit OBJECT Interface.Method ["TEXT"|true|false|OBJECT ...]
 *                      phone NAME name="..."    adds a phone
 *                      anything else is for the daemon: phone NAME VERB, adapter VERB, wait MS
 *   > ACTION -> TEXT   the daemon refuses it with this text
 *   LINE               a message, see Bench
 *   | REST             goes on with the line before
 *   +MS LINE           the same, MS of product time after the line before it
 *   ~ LINE             the same, before or after the next line: two programs race for the bus
 *   # COMMENT
 *
 * A script that does not start the daemon itself finds it running, with the agent, a phone P that
 * it does not know, and a phone K that it knows and trusts.
 */
class ScriptsTest : public QObject
{
    Q_OBJECT

public:
    explicit ScriptsTest(const QString &file) : m_file(file) { }

private Q_SLOTS:
    void run_data();
    void run();

private:
    void prepare(Bench &bench);
    void act(Bench &bench, const QString &action);
    void unitCalls(Bench &bench, const QStringList &words);
    void expect(QString line);
    /// The expected lines, those that race for the bus in the order that they came in.
    QStringList expected(const QStringList &actual) const;

    QString m_file;
    QStringList m_expected; ///< as far as the script has come
    QVector<int> m_races; ///< expected lines that may change places with the next one
    QVector<int> m_delays; ///< of the expected lines; negative where none is given
};

void ScriptsTest::run_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QStringList>("script");

    QFile file(m_file);
    QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(m_file));
    const QString contents = QString::fromUtf8(file.readAll()).replace("\n| ", " ");
    const QStringList sections = contents.split("\n== ").mid(1);
    QVERIFY(!sections.isEmpty());
    for (const QString &section : sections) {
        const QStringList lines = section.split('\n', Qt::SkipEmptyParts);
        const QString title = lines.first().section(": ", 1);
        for (const QString &backend : lines.first().section(": ", 0, 0).split(' '))
            QTest::newRow(qPrintable(title + ", " + backend))
                << backend << QStringList(lines.mid(1));
    }
}

void ScriptsTest::run()
{
    QFETCH(QString, backend);
    QFETCH(QStringList, script);

    Bench bench(backend);
    m_expected.clear();
    m_races.clear();
    m_delays.clear();
    if (!script.contains("> start"))
        prepare(bench);
    for (const QString &line : qAsConst(script)) {
        if (line.startsWith("> ")) {
            // The daemon may have gone on by itself: what is too much is seen at the next lines.
            bench.waitForLines(m_expected.size());
            const QStringList lines = bench.lines();
            QCOMPARE(QStringList(lines.mid(0, m_expected.size())), expected(lines));
            act(bench, line.mid(2));
        } else if (!line.startsWith('#')) {
            expect(line);
        }
        if (QTest::currentTestFailed())
            return;
    }
    bench.waitForLines(m_expected.size());
    QCOMPARE(bench.lines(), expected(bench.lines()));
    for (int i = 1; i < m_expected.size(); i++) {
        const int wanted = m_delays.at(i);
        const int delay = int(bench.millisecondsBefore(i) / Bench::Scale);
        QVERIFY2(wanted < 0 || (delay >= wanted - MayBeEarly && delay <= wanted + MayBeLate),
                 qPrintable(QString("%1 ms before %2").arg(delay).arg(m_expected.at(i))));
    }
}

void ScriptsTest::prepare(Bench &bench)
{
    QVERIFY(bench.startDaemon());
    QVERIFY(bench.addPhone("P"));
    QVERIFY(bench.addPhone("K", "trusted"));
    QVERIFY(bench.waitForLine("adapter Adapter.Discoverable = false"));
    QVERIFY(bench.startAgent());
    bench.clear();
}

void ScriptsTest::act(Bench &bench, const QString &action)
{
    const QStringList words = action.split(' ');
    const QString verb = words.first();
    if (verb == "start") {
        QVERIFY(bench.startDaemon());
    } else if (verb == "agent") {
        QVERIFY(bench.startAgent());
    } else if (verb == "stop") {
        QVERIFY(bench.stop(bench.daemon()));
    } else if (verb == "stop-agent") {
        QVERIFY(bench.stop(bench.agent()));
    } else if (verb == "option") {
        const QJsonArray list = QJsonDocument::fromJson(words.at(2).toUtf8()).array();
        bench.setOption(words.at(1), list.isEmpty() ? QJsonValue(words.at(2)) : list);
        bench.tell("phones"); // answered after the option has been taken over
    } else if (verb == "phone" && words.value(2).startsWith("name=")) {
        QVERIFY(bench.addPhone(words.at(1), words.at(2)));
    } else if (verb == "unit") {
        unitCalls(bench, words);
    } else {
        const QString refusal = action.section(" -> ", 1);
        const Result result = bench.tell(action.section(" -> ", 0, 0));
        QCOMPARE(result.ok ? QString() : result.text, refusal);
    }
}

void ScriptsTest::unitCalls(Bench &bench, const QStringList &words)
{
    const QString method = words.at(2);
    QDBusMessage call = QDBusMessage::createMethodCall("org.bluez", bench.path(words.at(1)),
                                                       "org.bluez." + method.section('.', 0, 0),
                                                       method.section('.', 1));
    for (const QString &word : words.mid(3)) {
        if (word == "true" || word == "false")
            call << QVariant::fromValue(QDBusVariant(word == "true"));
        else if (word.startsWith('"'))
            call << word.mid(1, word.size() - 2);
        else
            call << QVariant::fromValue(QDBusObjectPath(bench.path(word)));
    }
    bench.caller().asyncCall(call);
}

void ScriptsTest::expect(QString line)
{
    static const QRegularExpression delayed("^\\+(\\d+) ");
    if (line.startsWith("~ ")) {
        m_races.append(m_expected.size());
        line.remove(0, 2);
    }
    const auto match = delayed.match(line);
    m_delays.append(match.hasMatch() ? match.captured(1).toInt() : -1);
    m_expected.append(line.remove(delayed));
}

QStringList ScriptsTest::expected(const QStringList &actual) const
{
    QStringList lines = m_expected;
    for (int i : m_races) {
        if (i + 1 < lines.size() && actual.value(i) == lines.at(i + 1))
            lines.swapItemsAt(i, i + 1);
    }
    return lines;
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QStringList arguments = application.arguments();
    if (arguments.size() < 2)
        qFatal("usage: tst_bluez_scripts FILE [OPTIONS OF QTEST]");
    ScriptsTest test(arguments.takeAt(1));
    return QTest::qExec(&test, arguments);
}
#include "tst_bluez_scripts.moc"
