#ifndef PROGRAM_H
#define PROGRAM_H

#include <QJsonObject>
#include <QObject>
#include <QStringList>

class QLocalSocket;

/**
 * One connection to the hub's socket: a program of the board that has said hello, or somebody who
 * gives control lines and follows the journal.
 */
class Program : public QObject
{
    Q_OBJECT

public:
    Program(QLocalSocket *socket, QObject *parent);

    /// Empty for a control connection.
    QString name() const { return m_name; }
    qint64 pid() const { return m_pid; }
    QStringList arguments() const { return m_arguments; }
    /// True once a program that serves others says that it answers now.
    bool isReady() const { return m_ready; }

    /// The process has closed the connection, ended() is about to come, and nothing before it.
    bool hasHungUp() const;
    /// Whether its end is in the journal.
    bool isEndRecorded() const { return m_endRecorded; }
    void setEndRecorded() { m_endRecorded = true; }

    /// Control lines of this connection: the first is being carried out, the others wait for it.
    QStringList &told() { return m_told; }

    void send(const QJsonObject &object);
    /// One line of JSON, without its end.
    void sendLine(const QByteArray &line);
    /// The start or end of the program as a journal entry.
    QJsonObject entry(const QString &kind) const;

Q_SIGNALS:
    void helloReceived(const QJsonObject &hello);
    /// Any line after the hello, or any line of a control connection.
    void received(const QJsonObject &object);
    void ended();

private:
    void readLines();

    QLocalSocket *m_socket;
    QString m_name;
    qint64 m_pid = 0;
    QStringList m_arguments;
    QJsonObject m_environment;
    bool m_ready = false;
    bool m_endRecorded = false;
    QStringList m_told;
};

#endif
