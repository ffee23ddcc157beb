#ifndef BACKGROUNDPROCESS_H
#define BACKGROUNDPROCESS_H

#include <QProcess>

#include <unistd.h>

/// A process away from the terminal: an interrupt typed there is not meant for it.
class BackgroundProcess : public QProcess
{
public:
    using QProcess::QProcess;

protected:
    void setupChildProcess() override { setsid(); }
};

#endif
