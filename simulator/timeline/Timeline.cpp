#include "Timeline.h"

#include "EntryText.h"
#include "Sound.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QVector>

#include <algorithm>
#include <exception>
#include <optional>

// In a library the page's parts are only linked in when somebody asks for them.
static void initialiseResources()
{
    Q_INIT_RESOURCE(timeline);
}

namespace {

struct Journal
{
    QVector<QJsonObject> entries;
    int skippedLines = 0; // no entries; the last one of a run that was killed, for instance
    std::optional<double> origin; // its time 0 by CLOCK_MONOTONIC, seconds
};

bool readJournal(const QString &fileName, Journal *journal, QString *error)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = fileName + ": " + file.errorString();
        return false;
    }
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (line.isEmpty())
            continue;
        const QJsonObject entry = QJsonDocument::fromJson(line).object();
        if (!entry.value("time").isDouble() || !entry.value("lane").isString()
            || !entry.value("kind").isString()) {
            ++journal->skippedLines;
            continue;
        }
        if (entry.value("monotonic").isDouble())
            journal->origin = entry.value("monotonic").toDouble() - entry.value("time").toDouble();
        journal->entries.append(entry);
    }
    return true;
}

/// A log line repeats in "text" what its other fields say.
void removeRepeatedText(QJsonObject *entry)
{
    const QString prefix =
        QString("[%1:%2] %3: ")
            .arg(entry->value("file").toString(), entry->value("line").toVariant().toString(),
                 entry->value("function").toString());
    const QString message = entry->value("message").toString();
    if (entry->value("text") == message || entry->value("text") == QString(prefix + message))
        entry->remove("text");
}

/**
 * The journal in few bytes: "pairs", all different pairs of a field and its value, and "entries",
 * each an array of its time and the numbers of its pairs.
 */
void addEntries(const Journal &journal, QJsonObject *run)
{
    QHash<QByteArray, int> numbers;
    QJsonArray pairs;
    QJsonArray entries;
    for (QJsonObject entry : journal.entries) {
        QJsonArray packed {entry.take("time")};
        removeRepeatedText(&entry);
        if (entry.contains("signal"))
            entry.insert("signal", signalName(entry.value("signal")));
        for (auto field = entry.constBegin(); field != entry.constEnd(); ++field) {
            const QJsonArray pair {field.key(), field.value()};
            const QByteArray key = QJsonDocument(pair).toJson(QJsonDocument::Compact);
            auto number = numbers.constFind(key);
            if (number == numbers.constEnd()) {
                number = numbers.insert(key, pairs.size());
                pairs.append(pair);
            }
            packed.append(*number);
        }
        entries.append(packed);
    }
    run->insert("pairs", pairs);
    run->insert("entries", entries);
}

QByteArray html(const QString &text)
{
    return text.toHtmlEscaped().toUtf8();
}

/// What went wrong by its own words; the bus daemon's answers to idle questions do not count.
bool isTrouble(const QJsonObject &entry)
{
    return entry.value("level").toInt() == 1
        || (entry.value("kind") == "error" && entry.value("senderName") != "org.freedesktop.DBus");
}

/// The rows of the table; HTML lets the ends of cells and rows away.
QByteArray tableRows(const Journal &journal)
{
    QByteArray rows;
    for (const QJsonObject &entry : journal.entries) {
        rows += isTrouble(entry) ? "<tr class=trouble><td>" : "<tr><td>";
        rows += QByteArray::number(entry.value("time").toDouble(), 'f', 6);
        rows += "<td>" + html(entry.value("lane").toString());
        rows += "<td>" + html(entry.value("kind").toString());
        rows += "<td>" + html(entryText(entry)) + '\n';
    }
    return rows;
}

QString facts(const Journal &journal)
{
    if (journal.entries.isEmpty())
        return "The journal is empty.";
    const auto troubles = std::count_if(journal.entries.begin(), journal.entries.end(), isTrouble);
    const double length = journal.entries.last().value("time").toDouble();
    QString text = QString("%1 s, %2 entries, %3")
                       .arg(length, 0, 'f', 1)
                       .arg(journal.entries.size())
                       .arg(troubles == 0       ? QString("no errors")
                                : troubles == 1 ? QString("1 error")
                                                : QString("%1 errors").arg(troubles));
    if (journal.skippedLines > 0)
        text += QString(", %1 unreadable lines left out").arg(journal.skippedLines);
    return text;
}

QByteArray resource(const char *name)
{
    QFile file(QString(":/timeline/") + name);
    file.open(QIODevice::ReadOnly);
    return file.readAll();
}

/// The template with each {{name}} replaced; what is put in is not looked at again.
QByteArray filledTemplate(const QHash<QByteArray, QByteArray> &values)
{
    const QByteArray page = resource("timeline.html");
    QByteArray filled;
    int done = 0;
    int begin = page.indexOf("{{");
    while (begin >= 0) {
        const int end = page.indexOf("}}", begin);
        filled += page.mid(done, begin - done) + values.value(page.mid(begin + 2, end - begin - 2));
        done = end + 2;
        begin = page.indexOf("{{", done);
    }
    return filled + page.mid(done);
}

/// Names the only script or style that the page's security policy lets the browser run.
QByteArray policyHash(const QByteArray &source)
{
    return "'sha256-" + QCryptographicHash::hash(source, QCryptographicHash::Sha256).toBase64()
        + '\'';
}

QByteArray page(const Journal &journal, const QJsonObject &run)
{
    const QByteArray style = resource("timeline.css");
    const QByteArray script =
        resource("model.js") + resource("picture.js") + resource("timeline.js");
    // Nothing in the data may look like the end of the script element.
    const QByteArray data =
        QJsonDocument(run).toJson(QJsonDocument::Compact).replace('<', "\\u003c");
    return filledTemplate({{"facts", html(facts(journal))},
                           {"policy",
                            "default-src 'none'; style-src " + policyHash(style) + "; script-src "
                                + policyHash(script)},
                           {"style", style},
                           {"rows", tableRows(journal)},
                           {"data", data},
                           {"script", script}});
}

} // namespace

bool writeTimeline(const QString &outFolder, QString *error)
{
    initialiseResources();
    const QDir folder(outFolder);
    Journal journal;
    if (!readJournal(folder.filePath("journal.jsonl"), &journal, error))
        return false;

    QJsonObject run;
    addEntries(journal, &run);
    if (journal.origin) {
        try {
            run.insert("sound", soundOutline(folder.filePath("board.raw"), *journal.origin));
        } catch (const std::exception &exception) {
            *error = QString::fromLocal8Bit(exception.what());
            return false;
        }
    }

    QSaveFile file(folder.filePath("timeline.html"));
    if (!file.open(QIODevice::WriteOnly) || file.write(page(journal, run)) < 0 || !file.commit()) {
        *error = file.fileName() + ": " + file.errorString();
        return false;
    }
    return true;
}
