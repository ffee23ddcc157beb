#include "Error.h"

namespace {

const QString Prefix = QStringLiteral("org.bluez.Error.");

struct Usual
{
    const char *name;
    const char *text;
};

const Usual UsualErrors[] = {
    {"InvalidArguments", "Invalid arguments in method call"},
    {"InProgress", "In Progress"},
    {"AlreadyExists", "Already Exists"},
    {"NotConnected", "Not Connected"},
    {"AlreadyConnected", "Already Connected"},
    {"DoesNotExist", "Does Not Exist"},
    {"NoSuchAdapter", "No such adapter"},
    {"AgentNotAvailable", "Agent Not Available"},
    {"NotReady", "Resource Not Ready"},
    {"NotAuthorized", "Operation Not Authorized"},
    {"NotSupported", "Operation is not supported"},
    {"NotAvailable", "Operation currently not available"},
    {"Failed", "Operation failed"},
};

} // namespace

namespace Errors {

Error invalidArguments()
{
    return named("InvalidArguments");
}

Error audioInProgress()
{
    return {Prefix + "InProgress", "Operation already in progress"};
}

Error alreadyExists()
{
    return named("AlreadyExists");
}

Error notConnected()
{
    return named("NotConnected");
}

Error alreadyConnected()
{
    return named("AlreadyConnected");
}

Error doesNotExist()
{
    return named("DoesNotExist");
}

Error deviceCreationInProgress()
{
    return {Prefix + "DoesNotExist", "Device creation in progress"};
}

Error noSuchAdapter()
{
    return named("NoSuchAdapter");
}

Error agentNotAvailable()
{
    return named("AgentNotAvailable");
}

Error notAvailable()
{
    return named("NotAvailable");
}

Error failed(const QString &text)
{
    return {Prefix + "Failed", text};
}

Error named(const QString &name)
{
    const QString last = name.section('.', -1);
    const QString whole = name.contains('.') ? name : Prefix + name;
    for (const Usual &usual : UsualErrors) {
        if (last == usual.name)
            return {whole, usual.text};
    }
    return {whole, last};
}

} // namespace Errors
