#ifndef HUBLINK_H
#define HUBLINK_H

#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QStringList>

class QLocalSocket;

/**
 * A virtual program's connection to the hub of the virtual product.
 *
 * One JSON object per line in both directions. Every program says hello first and does as the
 * answer says; closing the connection, for whatever reason, is what the hub records as the
 * program's end. Keep the object for as long as the program lives.
 */
class HubLink : public QObject
{
    Q_OBJECT

public:
    /// How the hub wants this start of the program to go.
    enum class Behaviour {
        Normal,
        Exit, ///< end at once with exitStatus()
        Hang, ///< do nothing, for ever; SIGTERM ends it
        Crash, ///< end at once by SIGSEGV
        IgnoreTerm, ///< work normally, but ignore SIGTERM
        Delay ///< work normally after delayMilliseconds()
    };

    explicit HubLink(QObject *parent = nullptr);

    /// The hub's socket: environment variable PRODUCT_HUB, or else /run/product/hub.
    static QString socketPath();

    /**
     * Connects and says hello; returns once the hub has answered. \p arguments without the
     * program's own name. False, with errorString() set, when there is no hub.
     */
    bool connectAndHello(const QString &program, const QStringList &arguments,
                         const QJsonObject &environment = QJsonObject());
    QString errorString() const;

    /**
     * Carries out Exit, Crash, Hang and Delay on the spot (so it may not return), and makes the
     * process ignore SIGTERM for IgnoreTerm. The plain way for a program that needs nothing of
     * its own.
     */
    void obey() const;

    Behaviour behaviour() const;
    int exitStatus() const;
    int delayMilliseconds() const;
    /// The whole answer, for a program that wants more of it.
    QJsonObject answer() const;
    /**
     * What bluetoothd is told to be like; updated before every optionsChanged(). An option that
     * has been taken back is null, so that toInt(standard) and the like answer as if it had never
     * been set.
     *
     * "backend" "mgmt" or "hci"; "order" "usual" or "other"; "timescale" a factor of the daemon's
     * own timers; "race" a number; "stream-taken" true while a local client has the phone's
     * stream; every "fault bluetoothd KEY[=VALUE]" as KEY with a number or true; "faults" the list
     * of the method faults in force, each with "method" and one of "error" (a name, or true),
     * "delay" (milliseconds) and "never" (true), and maybe with "times" and "after".
     */
    QJsonObject options() const;

    /// Answers the command \p id.
    void reply(int id, const QString &text);
    void replyError(int id, const QString &text);
    /**
     * Has \p entry written to the journal; it needs "lane" and "kind", the hub adds the time.
     *
     * The hub itself reads a phone's events (kind "phone"): with "state" "stream-open", "playing",
     * "paused" or "stream-closed" it follows the phone's audio, and wants the fields "address"
     * and "audio" (a file, or "tone") in them.
     */
    void event(const QJsonObject &entry);

Q_SIGNALS:
    /// A command of the user's or the test's; answer it with reply() or replyError(), once.
    void commandReceived(int id, const QString &text);
    /// Options that changed while the program runs: only the changed ones.
    void optionsChanged(const QJsonObject &changed);
    /// The hub has gone, so the product has ended.
    void disconnected();

private Q_SLOTS:
    void readLines();

private:
    void send(const QJsonObject &object);
    void handle(const QJsonObject &object);

    QLocalSocket *m_socket;
    QJsonObject m_answer;
    QJsonObject m_options;
};

#endif
