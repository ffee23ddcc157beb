#ifndef TERMINATION_H
#define TERMINATION_H

#include <QObject>

class QSocketNotifier;

/// Turns SIGTERM and SIGINT into a Qt signal. One object per process, and not while SIGTERM is
/// ignored: that stays as it is.
class Termination : public QObject
{
    Q_OBJECT

public:
    explicit Termination(QObject *parent = nullptr);
    ~Termination() override;

Q_SIGNALS:
    void requested();

private:
    void readSignal();

    int m_descriptor = -1;
    QSocketNotifier *m_notifier = nullptr;
};

#endif
