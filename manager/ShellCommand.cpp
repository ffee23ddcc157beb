#include "ShellCommand.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

/** Points a file descriptor to /dev/null for as long as the object lives. */
class Silenced
{
public:
    explicit Silenced(int descriptor)
        : m_descriptor(descriptor), m_saved(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
    {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (m_saved >= 0 && null >= 0)
            dup2(null, descriptor);
        if (null >= 0)
            close(null);
    }

    ~Silenced()
    {
        if (m_saved < 0)
            return;
        dup2(m_saved, m_descriptor);
        close(m_saved);
    }

private:
    Silenced(const Silenced &);
    Silenced &operator=(const Silenced &);

    const int m_descriptor;
    const int m_saved;
};

} // namespace

int runShellCommand(const QByteArray &command)
{
    const Silenced output(STDOUT_FILENO);
    const Silenced error(STDERR_FILENO);
    return system(command.constData());
}
