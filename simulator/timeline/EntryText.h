#ifndef ENTRYTEXT_H
#define ENTRYTEXT_H

#include <QJsonObject>
#include <QString>

/// What a journal entry says, in one line for people.
QString entryText(const QJsonObject &entry);

/// "SIGTERM" for the number of a signal; a text stays as it is.
QString signalName(const QJsonValue &signal);

#endif
