#ifndef CONTROLSOCKET_H
#define CONTROLSOCKET_H

#include <QLocalServer>

class Control;
class Journal;
class QLocalSocket;

/**
 * Where clients give control lines and follow the journal: a socket with one JSON object per line.
 *
 *   {"tell": "phone anna play"}   {"ok": true, "text": "...", "values": [...]} when it is done
 *   {"complete": "phone an"}      {"words": ["anna"]}
 *   {"follow": true}              every entry of the journal, from the first on, as it is
 */
class ControlSocket : public QLocalServer
{
    Q_OBJECT

public:
    ControlSocket(Control &control, Journal &journal, QObject *parent = nullptr);

private:
    void accept();
    void readLines(QLocalSocket *client);
    void follow(QLocalSocket *client);

    Control &m_control;
    Journal &m_journal;
};

#endif
