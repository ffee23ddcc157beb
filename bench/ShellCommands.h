#ifndef SHELLCOMMANDS_H
#define SHELLCOMMANDS_H

#include <QList>
#include <QByteArray>

// The service's own shell commands, to be timed alone.

QList<QByteArray> killPipelines();
QList<QByteArray> bringUpCommands();
QList<QByteArray> soundPathCommands(const QByteArray &source);

/// Seconds that it takes to run them one after the other, silently, as the service does.
double timeAlone(const QList<QByteArray> &commands);

#endif
