#include "VirtualProduct.h"

#include "JournalText.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QJsonDocument>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <sys/prctl.h>

namespace {

/// Far more than anything takes that a test waits for, on a machine that is busy.
const int GenerousMs = 40000;
const int Skipped = 77;
const int TailLength = 80;

/// Dies with the test, however that ends.
class Launcher : public QProcess
{
protected:
    void setupChildProcess() override { prctl(PR_SET_PDEATHSIG, SIGKILL); }
};

/// What the service is to run under, valgrind for instance.
QString under()
{
    return qEnvironmentVariable("ULMO_TEST_UNDER");
}

/// Whether there is somebody who looks for leaks when the service ends.
bool isEndWatched()
{
#ifdef __SANITIZE_ADDRESS__
    return true;
#else
    return !under().isEmpty();
#endif
}

QString textOf(const QJsonObject &pattern)
{
    return QJsonDocument(pattern).toJson(QJsonDocument::Compact);
}

bool valueFits(const QJsonValue &value, const QJsonValue &wanted)
{
    const QString text = wanted.toString();
    if (text.endsWith('*'))
        return value.toString().startsWith(text.chopped(1));
    if (!wanted.isArray())
        return value == wanted;
    const QJsonArray array = value.toArray();
    const QJsonArray beginning = wanted.toArray();
    for (int i = 0; i < beginning.size(); ++i) {
        if (i >= array.size() || !valueFits(array.at(i), beginning.at(i)))
            return false;
    }
    return true;
}

} // namespace

VirtualProduct::VirtualProduct(const Options &options, Place place)
{
    start(options, place);
}

VirtualProduct::VirtualProduct(Place place)
{
    start(Options(), place);
}

VirtualProduct::~VirtualProduct()
{
    if (isEndWatched()) {
        m_launcher->terminate();
        m_launcher->waitForFinished(GenerousMs);
    }
    failOnReports();
    if (QTest::currentTestFailed()) {
        m_failed = true;
        printTail();
        m_folder->setAutoRemove(false);
        printf("The virtual product's folder is kept: %s\n", qPrintable(folder()));
    }
    // Nothing inside survives this.
    m_launcher->kill();
    m_launcher->waitForFinished();
    delete m_launcher;
}

QString VirtualProduct::launcher()
{
    return QStringLiteral(SIMULATOR_FOLDER "/virtual-product");
}

QString VirtualProduct::control()
{
    return QStringLiteral(SIMULATOR_FOLDER "/product-control");
}

bool VirtualProduct::isPossible(QString *reason)
{
    QProcess check;
    check.start(launcher(), {"--check"});
    const bool finished = check.waitForFinished(GenerousMs);
    *reason = check.readAllStandardError().trimmed();
    return finished && check.exitStatus() == QProcess::NormalExit && check.exitCode() == 0;
}

void VirtualProduct::start(const Options &options, const Place &place)
{
    m_folder.reset(new QTemporaryDir(QDir::tempPath() + "/product-XXXXXX"));
    m_launcher = new Launcher;
    if (!writeSettings(options)) {
        fail("cannot write the settings", place);
        return;
    }
    QStringList arguments {"--out", folder(), "--pulse", options.realPulse ? "real" : "scripted"};
    if (!options.startService)
        arguments.append("--no-service");
    if (!under().isEmpty())
        arguments << "--under" << under();
    for (const QString &variable : options.environment)
        arguments << "--env" << variable;
    for (const QString &line : options.tell)
        arguments << "--tell" << line;
    // The programs inside have their standard error elsewhere or nowhere.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString reports = ":log_path=/run/product/out/sanitizer";
    environment.insert("UBSAN_OPTIONS", environment.value("UBSAN_OPTIONS") + reports);
    // Programs are told to crash, and then have to end by that signal.
    environment.insert("ASAN_OPTIONS",
                       environment.value("ASAN_OPTIONS") + reports + ":handle_segv=0");
    m_launcher->setProcessEnvironment(environment);
    m_launcher->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_launcher->start(launcher(), arguments);
    while (!m_launcher->canReadLine()) {
        if (!m_launcher->waitForReadyRead(GenerousMs)) {
            fail("the virtual product does not start", place);
            return;
        }
    }
    if (!m_hub.connectTo(folder() + "/hub", GenerousMs))
        fail("no hub: " + m_hub.errorString(), place);
    m_hub.follow();
}

bool VirtualProduct::writeSettings(const Options &options)
{
    QByteArray text = options.settingsFile;
    QString section;
    for (auto setting = options.settings.begin(); setting != options.settings.end(); ++setting) {
        if (setting.key().section('/', 0, 0) != section) {
            section = setting.key().section('/', 0, 0);
            text += '[' + section.toUtf8() + "]\n";
        }
        text += setting.key().section('/', 1).toUtf8() + '='
            + setting.value().toVariant().toString().toUtf8() + '\n';
    }
    if (text.isEmpty())
        return m_folder->isValid();
    QFile file(settingsFile());
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

void VirtualProduct::fail(const QString &text, const Place &place)
{
    if (!m_failed)
        QTest::qFail(qPrintable(text), place.file, place.line);
    m_failed = true;
}

bool VirtualProduct::waitUntil(const std::function<bool()> &arrived)
{
    const QDeadlineTimer deadline(GenerousMs);
    while (!m_failed && !arrived()) {
        if (m_hub.receive(int(deadline.remainingTime())))
            continue;
        if (deadline.hasExpired() || !m_hub.isConnected())
            return false;
    }
    return !m_failed;
}

/// The hub's answer to \p request, after everything that was in the journal before it.
QJsonObject VirtualProduct::answerTo(const QJsonObject &request, const Place &place)
{
    if (m_failed)
        return QJsonObject();
    m_hub.send(request);
    if (!waitUntil([this] { return !m_hub.answers.isEmpty(); })) {
        fail("no answer to " + textOf(request), place);
        return QJsonObject();
    }
    return m_hub.answers.takeFirst();
}

QString VirtualProduct::tell(const QString &line, Place place)
{
    const QJsonObject answer = answerTo({{"tell", line}}, place);
    if (answer.contains("error"))
        fail(line + ": " + answer.value("error").toString(), place);
    return answer.value("ok").toString();
}

QString VirtualProduct::tellRefused(const QString &line, Place place)
{
    const QJsonObject answer = answerTo({{"tell", line}}, place);
    if (answer.contains("ok"))
        fail("not refused: " + line, place);
    return answer.value("error").toString();
}

QJsonObject VirtualProduct::attempt(const QString &line, Place place)
{
    return answerTo({{"tell", line}}, place);
}

QJsonArray VirtualProduct::call(const QString &method, const QStringList &arguments, Place place)
{
    QStringList words {"call", method};
    for (QString argument : arguments)
        words.append('"' + argument + '"');
    const QString line = words.join(' ');
    const QJsonObject answer = answerTo({{"tell", line}}, place);
    if (answer.contains("error"))
        fail(line + ": " + answer.value("error").toString(), place);
    return answer.value("values").toArray();
}

QJsonObject VirtualProduct::expect(const QString &what, const Predicate &predicate, Place place)
{
    const int from = m_cursor;
    const bool found = waitUntil([this, &predicate] {
        while (m_cursor < m_hub.journal.size()) {
            if (predicate(m_hub.journal.at(m_cursor++)))
                return true;
        }
        return false;
    });
    if (found)
        return m_hub.journal.at(m_cursor - 1);
    m_cursor = from;
    fail("did not happen: " + what, place);
    return QJsonObject();
}

QJsonObject VirtualProduct::expect(const Pattern &pattern, Place place)
{
    return expect(
        textOf(pattern), [&pattern](const QJsonObject &entry) { return fits(entry, pattern); },
        place);
}

QJsonObject VirtualProduct::expectLog(int level, const QString &message, Place place)
{
    return expect(log(level, message), place);
}

void VirtualProduct::expectLogs(int level, const QStringList &messages, Place place)
{
    for (const QString &message : messages)
        expectLog(level, message, place);
}

QJsonObject VirtualProduct::expectCommand(const QString &wanted, Place place)
{
    return expect(
        wanted,
        [&wanted](const QJsonObject &entry) {
            return entry.value("kind") == "start" && commandLine(entry) == wanted;
        },
        place);
}

int VirtualProduct::mark()
{
    answerTo({{"sync", true}}, {__FILE__, __LINE__});
    return m_hub.journal.size();
}

void VirtualProduct::rewind(int position)
{
    m_cursor = position;
}

void VirtualProduct::forget()
{
    mark();
    m_hub.journal.clear();
    m_cursor = 0;
}

QVector<QJsonObject> VirtualProduct::entries(const Pattern &pattern, int from)
{
    mark();
    QVector<QJsonObject> found;
    for (int i = from; i < m_hub.journal.size(); ++i) {
        if (fits(m_hub.journal.at(i), pattern))
            found.append(m_hub.journal.at(i));
    }
    return found;
}

QStringList VirtualProduct::commands(int from)
{
    QStringList list;
    for (const QJsonObject &entry : entries({{"kind", "start"}}, from)) {
        if (entry.value("program") != "service")
            list.append(commandLine(entry));
    }
    return list;
}

QStringList VirtualProduct::messages(int from)
{
    QStringList list;
    for (const QJsonObject &entry : entries({{"kind", "log"}}, from))
        list.append(entry.value("message").toString());
    return list;
}

int VirtualProduct::serviceExit(Place place)
{
    const QJsonObject end = expect({{"kind", "end"}, {"program", "service"}}, place);
    return end.contains("signal") ? -end.value("signal").toInt() : end.value("status").toInt(-1);
}

QJsonObject VirtualProduct::settings() const
{
    QJsonObject settings;
    QFile file(settingsFile());
    file.open(QIODevice::ReadOnly);
    QString section;
    for (const QByteArray &bytes : file.readAll().split('\n')) {
        const QString line = QString::fromUtf8(bytes).trimmed();
        if (line.startsWith('['))
            section = line.mid(1).chopped(1);
        else if (line.contains('=') && !line.startsWith('#'))
            settings.insert(section + '/' + line.section('=', 0, 0).trimmed(),
                            line.section('=', 1).trimmed());
    }
    return settings;
}

QString VirtualProduct::commandLine(const QJsonObject &entry)
{
    QStringList words {entry.value("program").toString()};
    for (const QJsonValue &argument : entry.value("arguments").toArray())
        words.append(argument.toString());
    return words.join(' ');
}

VirtualProduct::Pattern VirtualProduct::log(int level, const QString &message)
{
    return {{"kind", "log"}, {"level", level}, {"message", message}};
}

VirtualProduct::Pattern VirtualProduct::command(const QString &commandLine)
{
    QStringList words = commandLine.split(' ');
    const QString program = words.takeFirst();
    return {
        {"kind", "start"}, {"program", program}, {"arguments", QJsonArray::fromStringList(words)}};
}

VirtualProduct::Pattern VirtualProduct::message(const QString &kind, const QString &member)
{
    return {{"lane", "bus"}, {"kind", kind}, {"member", member}};
}

bool VirtualProduct::fits(const QJsonObject &entry, const Pattern &pattern)
{
    for (auto field = pattern.begin(); field != pattern.end(); ++field) {
        if (!entry.contains(field.key()) || !valueFits(entry.value(field.key()), field.value()))
            return false;
    }
    return true;
}

void VirtualProduct::printTail() const
{
    printf("The journal's last entries:\n");
    for (const QJsonObject &entry : m_hub.journal.mid(qMax(0, m_hub.journal.size() - TailLength))) {
        if (!isBusBookkeeping(entry))
            printf("%s\n", qPrintable(journalText(entry)));
    }
    fflush(stdout);
}

/// Prints what sanitizers and valgrind have found.
void VirtualProduct::failOnReports() const
{
    for (const QFileInfo &report : QDir(folder()).entryInfoList({"sanitizer.*", "valgrind.*"})) {
        QFile file(report.filePath());
        // Valgrind makes its file before it has anything to say.
        if (report.size() == 0 || !file.open(QIODevice::ReadOnly))
            continue;
        printf("%s", file.readAll().constData());
        QTest::qFail(qPrintable("there is a report: " + report.fileName()), __FILE__, __LINE__);
    }
}

int runScenario(QObject *test, int argc, char **argv)
{
    QString reason;
    const bool listsOnly = QCoreApplication::arguments().contains("-datatags")
        || QCoreApplication::arguments().contains("-functions");
    if (!listsOnly && !VirtualProduct::isPossible(&reason)) {
        printf("SKIP: %s\n", qPrintable(reason));
        return Skipped;
    }
    return QTest::qExec(test, argc, argv);
}
