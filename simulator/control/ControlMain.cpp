#include "ControlMain.h"

#include "JournalText.h"

#include <QJsonDocument>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char Usage[] = R"(usage: product-control [--out DIR] [--follow | LINE]

  LINE        carry out one control line ("help" lists them) and print the answer
  --follow    show the journal, from its beginning on, until the product ends
  --out DIR   the product whose folder this is (needed outside of it)

Without LINE, lines are read from standard input; at a terminal "follow" shows the journal meanwhile
and "unfollow" stops that.
)";

/// The blocking side of the hub's socket.
class Hub
{
public:
    bool connectTo(const QByteArray &path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, path, sizeof address.sun_path);
        m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return connect(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }

    int descriptor() const { return m_socket; }

    void send(const QJsonObject &object)
    {
        const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
        if (write(m_socket, line.constData(), size_t(line.size())) != line.size())
            perror("product-control");
    }

    /// Reads what is there, or waits for something; false at the end of the product.
    bool receive()
    {
        char buffer[65536];
        const ssize_t length = read(m_socket, buffer, sizeof buffer);
        if (length > 0)
            m_received.append(buffer, int(length));
        return length > 0;
    }

    /// The next whole line; an empty object when there is none.
    QJsonObject take()
    {
        const int end = m_received.indexOf('\n');
        if (end < 0)
            return QJsonObject();
        const QByteArray line = m_received.left(end);
        m_received.remove(0, end + 1);
        return QJsonDocument::fromJson(line).object();
    }

private:
    int m_socket = -1;
    QByteArray m_received;
};

void print(const QString &text)
{
    if (!text.isEmpty())
        puts(qPrintable(text));
    fflush(stdout);
}

const char Prompt[] = "> ";
const char ClearLine[] = "\r\033[K";

/// Prints a journal entry that people want to see. False when \p object is none.
bool printJournal(const QJsonObject &object)
{
    if (!object.contains("journal"))
        return false;
    const QJsonObject entry = object.value("journal").toObject();
    if (!isBusBookkeeping(entry))
        print(journalText(entry, isatty(STDOUT_FILENO)));
    return true;
}

/// Prints the answer to a line; true when it was carried out.
bool printAnswer(const QJsonObject &object)
{
    const bool ok = object.contains("ok");
    if (ok)
        print(object.value("ok").toString());
    else
        fprintf(stderr, "error: %s\n", qPrintable(object.value("error").toString()));
    return ok;
}

/// Gives one line and waits for its answer, showing the journal if it comes.
bool tell(Hub &hub, const QString &line)
{
    hub.send({{"tell", line}});
    for (;;) {
        const QJsonObject object = hub.take();
        if (object.isEmpty()) {
            if (!hub.receive())
                return line.trimmed() == "quit";
        } else if (!printJournal(object)) {
            return printAnswer(object);
        }
    }
}

int follow(Hub &hub)
{
    hub.send({{"follow", true}});
    do {
        for (QJsonObject object = hub.take(); !object.isEmpty(); object = hub.take())
            printJournal(object);
    } while (hub.receive());
    return 0;
}

/// Lines from standard input, one after the other. At a terminal a refused one is no failure.
int converse(Hub &hub, bool inside)
{
    const bool atTerminal = isatty(STDIN_FILENO);
    bool allDone = true;
    QByteArray input;
    if (atTerminal)
        print(
            "The virtual product is running. \"help\" lists what it can be told, \"follow\" shows "
            "its journal, \"quit\" ends it.");
    for (;;) {
        if (atTerminal && input.isEmpty()) {
            fputs(Prompt, stdout);
            fflush(stdout);
        }
        pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {hub.descriptor(), POLLIN, 0}};
        if (poll(sources, 2, -1) < 0 && errno != EINTR)
            return 1;
        if (sources[1].revents) {
            if (!hub.receive())
                return allDone ? 0 : 1;
            if (atTerminal)
                fputs(ClearLine, stdout); // the prompt, which comes again below
            for (QJsonObject object = hub.take(); !object.isEmpty(); object = hub.take())
                printJournal(object);
        }
        if (sources[0].revents) {
            char buffer[4096];
            const ssize_t length = read(STDIN_FILENO, buffer, sizeof buffer);
            if (length <= 0)
                return atTerminal || allDone ? 0 : 1;
            input.append(buffer, int(length));
        }
        for (int end = input.indexOf('\n'); end >= 0; end = input.indexOf('\n')) {
            const QString line = QString::fromUtf8(input.left(end)).trimmed();
            input.remove(0, end + 1);
            // Inside, the product ends with the program that it runs, which knows its exit status.
            if (line == "quit" && inside)
                return atTerminal || allDone ? 0 : 1;
            // The command of the board's own shell, on this terminal.
            if (inside && line.section(' ', 0, 0) == "ulmoctl")
                allDone = system(line.toLocal8Bit()) == 0 && allDone;
            else if (line == "follow" || line == "unfollow")
                hub.send({{"follow", line == "follow"}});
            else if (!line.isEmpty() && !line.startsWith('#'))
                allDone = tell(hub, line) && allDone;
        }
    }
}

} // namespace

int controlMain(int argc, char **argv)
{
    QStringList words;
    for (int i = 1; i < argc; ++i)
        words.append(QString::fromLocal8Bit(argv[i]));
    QByteArray socket = "/run/product/hub";
    bool inside = true;
    if (words.value(0) == "--out" && words.size() > 1) {
        // The path of a socket has to be short; the way to it need not.
        if (chdir(words.at(1).toLocal8Bit()) != 0) {
            perror(qPrintable(words.at(1)));
            return 1;
        }
        socket = "hub";
        inside = false;
        words = words.mid(2);
    }
    if (words.value(0).startsWith("--") && words != QStringList {"--follow"}) {
        fputs(Usage, words.value(0) == "--help" ? stdout : stderr);
        return words.value(0) == "--help" ? 0 : 1;
    }

    Hub hub;
    if (!hub.connectTo(socket)) {
        fprintf(stderr, "product-control: no virtual product here: %s\n", strerror(errno));
        return 1;
    }
    if (words == QStringList {"--follow"})
        return follow(hub);
    if (!words.isEmpty())
        return tell(hub, words.join(' ')) ? 0 : 1;
    return converse(hub, inside);
}
