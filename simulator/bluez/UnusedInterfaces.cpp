#include "UnusedInterfaces.h"

namespace UnusedInterfaces {

Interface service()
{
    return {"org.bluez.Service",
            {{"AddRecord", {"s"}, {"u"}, nullptr},
             {"UpdateRecord", {"u", "s"}, {}, nullptr},
             {"RemoveRecord", {"u"}, {}, nullptr},
             {"RequestAuthorization", {"s", "u"}, {}, nullptr},
             {"CancelAuthorization", {}, {}, nullptr}},
            {}};
}

QVector<Interface> ofAdapter()
{
    const Interface media {"org.bluez.Media",
                           {{"RegisterEndpoint", {"o", "a{sv}"}, {}, nullptr},
                            {"UnregisterEndpoint", {"o"}, {}, nullptr},
                            {"RegisterPlayer", {"o", "a{sv}", "a{sv}"}, {}, nullptr},
                            {"UnregisterPlayer", {"o"}, {}, nullptr}},
                           {}};
    const Interface network {
        "org.bluez.NetworkServer",
        {{"Register", {"s", "s"}, {}, nullptr}, {"Unregister", {"s"}, {}, nullptr}},
        {}};
    const Interface serial {"org.bluez.SerialProxyManager",
                            {{"CreateProxy", {"s", "s"}, {"s"}, nullptr},
                             {"ListProxies", {}, {"as"}, nullptr},
                             {"RemoveProxy", {"s"}, {}, nullptr}},
                            {{"ProxyCreated", {"s"}}, {"ProxyRemoved", {"s"}}}};
    return {service(), media, network, serial};
}

} // namespace UnusedInterfaces
