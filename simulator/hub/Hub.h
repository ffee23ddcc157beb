#ifndef HUB_H
#define HUB_H

#include "Bluetoothd.h"
#include "BusMonitor.h"
#include "Faults.h"
#include "Journal.h"
#include "LoginManager.h"
#include "Platform.h"
#include "ServiceProcess.h"
#include "SoundManager.h"
#include "SoundPath.h"

#include <QLocalServer>
#include <QMap>

#include <memory>

class Control;
class Program;

/**
 * The middle of the virtual product: it starts the buses and the product's other services, tells
 * every program of the board how to behave, supervises the service, and writes the journal.
 */
class Hub : public QObject
{
    Q_OBJECT

public:
    /// \p build is the build folder, \p folder where the sockets and the journal appear.
    Hub(const QString &build, const QString &folder, bool realPulse, QObject *parent = nullptr);
    ~Hub() override;

    /// Starts everything but the service. False, with \p error set, when that fails.
    bool start(QString *error);
    Control &control() { return *m_control; }
    /// Writes \p entry to the journal, after what the service and the buses have said before.
    void record(const QJsonObject &entry);

    ServiceProcess &service() { return m_service; }
    Result startService();
    /// Has the service stop (SIGTERM) and calls \p done when it has ended.
    void stopService(const Done &done);
    /// Sends \p signal to the service, whatever that may do.
    Result signalService(int signal);
    /// Stops the service, if it runs, and then has the application exit with \p status.
    void quit(int status);

    Bluetoothd &bluetoothd() { return m_bluetoothd; }
    SoundManager &soundManager() { return m_soundManager; }
    Platform &platform() { return m_platform; }
    LoginManager &loginManager() { return m_loginManager; }
    Journal &journal() { return m_journal; }
    Faults &faults() { return m_faults; }

    /// Whether faults can be laid on \p program.
    bool isBoardProgram(const QString &program) const;
    /// Shows or takes away the files of the programs, as the faults say.
    void updatePresence();
    /// Sends \p signal to the \p program that was started last.
    Result killProgram(const QString &program, int signal);
    /// Ends the "session" or "system" bus; what was connected to it has lost it for good.
    Result killBus(const QString &bus);
    /// Starts a bus that was ended, and what the product has there, but for the board's programs.
    Result startBus(const QString &bus);

private:
    bool startBus(const QString &bus, QString *error);
    bool startServices(const QString &bus);
    void connectPieces();
    void acceptConnections();
    void welcome(Program *program);
    QJsonObject answerTo(const Program &program);
    QJsonObject usualAnswerTo(const Program &program);
    void forwardAdapterCommand(const Program &program);
    void received(Program *program, const QJsonObject &object);
    void controlReceived(Program *connection, const QJsonObject &object);
    void carryOutNext(Program *connection);
    void follow(Program *connection);
    void ended(Program *program);
    void serviceFinished();
    void catchUp();
    void settleBuses();
    QList<Program *> hungUpPrograms() const;
    void recordAll(const QVector<QJsonObject> &entries);
    void recordEnd(Program *program);
    QString programName(qint64 pid) const;

    QString m_folder;
    Journal m_journal;
    BusMonitor m_sessionMonitor;
    BusMonitor m_systemMonitor;
    ServiceProcess m_service;
    QList<Done> m_serviceEnd; ///< who waits for it
    Faults m_faults;
    QMap<QString, QString> m_files; ///< program -> what its file links to
    QMap<QString, QProcess *> m_buses;
    QLocalServer m_server;
    QList<Program *> m_programs; ///< in the order of their start
    Bluetoothd m_bluetoothd;
    SoundPath m_soundPath;
    SoundManager m_soundManager;
    Platform m_platform;
    LoginManager m_loginManager;
    std::unique_ptr<Control> m_control;
};

#endif
