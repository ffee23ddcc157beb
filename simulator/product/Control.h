#ifndef CONTROL_H
#define CONTROL_H

#include <QJsonArray>
#include <QLocalServer>
#include <QMap>
#include <QStringList>

#include <functional>

class Product;
class QLocalSocket;

/**
 * What the product can be told, by people at the prompt and by tests alike: lines of words. They
 * come through a socket with one JSON object per line:
 *
 *   {"tell": "phone anna play"}   {"ok": true, "text": "...", "values": [...]} when it is done
 *   {"complete": "phone an"}      {"words": ["anna"]}
 *   {"follow": true}              every entry of the journal, from the first on
 */
class Control : public QLocalServer
{
    Q_OBJECT

public:
    struct Answer
    {
        bool ok;
        QString text; ///< what there is to say, or what is wrong
        QJsonArray values; ///< what a D-Bus call returned
    };
    /// Takes the answer; called once, now or later.
    using Done = std::function<void(const Answer &)>;

    explicit Control(Product &product);

    /// Carries out \p line, which then stands in the journal.
    void tell(const QString &line, const Done &done);
    /// What the last word of the unfinished \p line may become.
    QStringList complete(const QString &line) const;

private:
    using Command = void (Control::*)(const QStringList &words, const Done &done);
    struct Entry
    {
        QString topic; ///< of the help
        /// Alternatives for each word. Those in brackets may be left out; what is in capitals is a
        /// list, or may be anything.
        QString parameters;
        Command command; ///< null: only at the prompt
    };
    /// A place for a word in a line.
    struct Place
    {
        QString what; ///< stands there
        QStringList known;
        bool isFree = false; ///< something else may stand there
    };

    void accept();
    void readLines(QLocalSocket *client);
    void follow(QLocalSocket *client);
    QString whyNot(const QStringList &words) const;
    Place placeAfter(const QStringList &words) const;

    // The service, over D-Bus and as a process.
    void status(const QStringList &words, const Done &done);
    void callShort(const QStringList &words, const Done &done);
    void call(const QStringList &words, const Done &done);
    void service(const QStringList &words, const Done &done);
    // Phones, programs and their faults.
    void bluez(const QStringList &words, const Done &done);
    void timescale(const QStringList &words, const Done &done);
    void spoof(const QStringList &words, const Done &done);
    void killProgram(const QStringList &words, const Done &done);
    void fault(const QStringList &words, const Done &done);
    // The rest of the product.
    void platform(const QStringList &words, const Done &done);
    void bus(const QStringList &words, const Done &done);
    void journal(const QStringList &words, const Done &done);
    void help(const QStringList &words, const Done &done);
    void quit(const QStringList &words, const Done &done);

    Product &m_product;
    const QMap<QString, Entry> m_commands;
};

#endif
