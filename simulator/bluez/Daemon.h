#ifndef DAEMON_H
#define DAEMON_H

#include "Context.h"
#include "Manager.h"
#include "PhoneBook.h"

#include <QJsonObject>
#include <QObject>

#include <map>
#include <memory>

class Adapter;
class HubLink;

/**
 * The virtual bluetoothd: brings its bus name and its adapter up in the daemon's order, carries out
 * what the hub says, and ends in an orderly way.
 *
 * The hub's commands:
 *   phone add NAME [KEY=VALUE ...] [known] [trusted]     see PhoneBook
 *   phone NAME VERB [ARGUMENT]                           see Phone::act()
 *   phones                                               a list for people
 *   adapter up|down|piscan|noscan|sspmode 0|sspmode 1    what hciconfig does to the controller
 *   wait MILLISECONDS                                    answered after that much product time
 */
class Daemon : public QObject
{
    Q_OBJECT

public:
    /// \p hub has said hello; \p adapterName is what the radio shows to phones.
    Daemon(HubLink *hub, const QString &adapterName, QObject *parent = nullptr);
    ~Daemon() override;

    /// Ends every link at once, releases the agent, and then has the application exit with 0.
    void stop();

private Q_SLOTS:
    void busLost();

private:
    void takeOptions(const QJsonObject &options);
    void claimName();
    void bringAdapterUp();
    void carryOut(int id, const QString &text);
    bool carryOutOnAdapter(const QStringList &words, QString *answer);
    /// Sends whatever signal the hub wants, which changes nothing here.
    bool sendSignal(const QStringList &words, QString *answer);

    HubLink *m_hub;
    QString m_adapterName;
    Context m_context;
    PhoneBook m_phones;
    Manager m_manager;
    std::unique_ptr<Adapter> m_adapter;
    Timer m_start;
    std::map<int, std::unique_ptr<Timer>> m_waits; ///< by the id of the command
    bool m_stopping = false;
};

#endif
