#include "Options.h"

#include <QVariant>

namespace {

bool isSet(const QJsonValue &value)
{
    const QString text = value.toVariant().toString();
    return !(text.isEmpty() || text == "false" || text == "off" || text == "no" || text == "0");
}

double number(const QJsonValue &value, double otherwise)
{
    bool ok = false;
    const double result = value.toVariant().toDouble(&ok);
    return ok ? result : otherwise;
}

} // namespace

void Options::apply(const QJsonObject &changed)
{
    const Options usual;
    for (auto option = changed.begin(); option != changed.end(); ++option) {
        const QString &key = option.key();
        const QJsonValue value = option.value();
        const QString text = value.toString();
        if (key == "name-delay")
            nameDelay = int(number(value, usual.nameDelay));
        else if (key == "no-name")
            noName = isSet(value);
        else if (key == "adapter-delay")
            adapterDelay = int(number(value, usual.adapterDelay));
        else if (key == "no-adapter")
            noAdapter = isSet(value);
        else if (key == "backend")
            backend = text == "hci" ? Backend::Hci : Backend::Management;
        else if (key == "order")
            otherOrder = text == "other";
        else if (key == "timescale")
            timescale = number(value, usual.timescale);
        else if (key == "race")
            race = int(number(value, usual.race));
        else if (key == "stream-taken")
            streamTaken = isSet(value);
        else if (key == "state")
            state = text.isEmpty() ? usual.state : text;
        else if (key == "faults")
            faults = value.toArray();
    }
}
