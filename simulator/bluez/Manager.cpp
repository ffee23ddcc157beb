#include "Manager.h"

#include "Adapter.h"
#include "Context.h"

#include <QDBusObjectPath>

namespace {
const QString Path = QStringLiteral("/");
const QString ManagerInterface = QStringLiteral("org.bluez.Manager");
} // namespace

Manager::Manager(Context *context) : m_context(context)
{
    m_context->bus.publish(
        Path,
        {ManagerInterface,
         {{"GetProperties",
           {},
           {"a{sv}"},
           [this](const Call &call) {
               call.reply(Properties {{"Adapters", adapterPaths()}});
           }},
          {"DefaultAdapter", {}, {"o"}, [this](const Call &call) { answerAdapter(call, true); }},
          {"FindAdapter",
           {"s"},
           {"o"},
           [this](const Call &call) {
               const QString pattern = call.argument(0).toString();
               answerAdapter(call,
                             m_adapter && (pattern == "hci0" || pattern == m_adapter->address()));
           }},
          {"ListAdapters", {}, {"ao"}, [this](const Call &call) { call.reply({adapterPaths()}); }}},
         {{"PropertyChanged", {"s", "v"}},
          {"AdapterAdded", {"o"}},
          {"AdapterRemoved", {"o"}},
          {"DefaultAdapterChanged", {"o"}}}});
}

void Manager::setAdapter(const Adapter *adapter)
{
    m_adapter = adapter;
    const QVariant path = QVariant::fromValue(QDBusObjectPath(adapter->path()));
    m_context->bus.emitSignal(Path, ManagerInterface, "AdapterAdded", {path});
    m_context->bus.emitPropertyChanged(Path, ManagerInterface, "Adapters", adapterPaths());
    m_context->bus.emitSignal(Path, ManagerInterface, "DefaultAdapterChanged", {path});
}

void Manager::answerAdapter(const Call &call, bool isMeant) const
{
    if (m_adapter && isMeant)
        call.reply({QVariant::fromValue(QDBusObjectPath(m_adapter->path()))});
    else
        call.fail(Errors::noSuchAdapter());
}

QVariant Manager::adapterPaths() const
{
    QList<QDBusObjectPath> paths;
    if (m_adapter)
        paths.append(QDBusObjectPath(m_adapter->path()));
    return QVariant::fromValue(paths);
}
