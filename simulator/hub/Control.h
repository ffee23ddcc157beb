#ifndef CONTROL_H
#define CONTROL_H

#include "Result.h"

#include <QDBusConnection>
#include <QMap>
#include <QStringList>

class Hub;

/// The control lines, for people at the prompt and for tests alike.
class Control
{
public:
    explicit Control(Hub &hub);

    /// Carries out \p line, which then stands in the journal, and calls \p done once.
    void tell(const QString &line, const Done &done);

private:
    using Command = void (Control::*)(const QStringList &words, const Done &done);

    // The service, over D-Bus and as a process.
    void status(const QStringList &words, const Done &done);
    void setEnabled(const QStringList &words, const Done &done);
    void callShort(const QStringList &words, const Done &done);
    void call(const QStringList &words, const Done &done);
    void service(const QStringList &words, const Done &done);
    // The board's programs and their faults.
    void killProgram(const QStringList &words, const Done &done);
    void fault(const QStringList &words, const Done &done);
    Result faultOf(const QString &target, const QStringList &words);
    Result clearFaults(const QString &target);
    Result bluetoothdFault(const QString &word);
    Result methodFault(const QString &method, const QStringList &words);
    void daemonOption(const QStringList &words, const Done &done);
    // The rest of the product.
    void platform(const QStringList &words, const Done &done);
    void login(const QStringList &words, const Done &done);
    void bus(const QStringList &words, const Done &done);
    void spoof(const QStringList &words, const Done &done);
    // The journal and the end.
    void journal(const QStringList &words, const Done &done);
    void help(const QStringList &words, const Done &done);
    void quit(const QStringList &words, const Done &done);

    void callService(const QString &method, const QVariantList &arguments, const Done &done);

    Hub &m_hub;
    QMap<QString, Command> m_commands;
};

#endif
