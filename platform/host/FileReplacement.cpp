#include "FileReplacement.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
/** A new file beside the target, gone again unless it has replaced the target. */
class TemporaryFile
{
public:
    explicit TemporaryFile(const QByteArray &target)
        : m_name(target + ".XXXXXX"), m_descriptor(mkostemp(m_name.data(), O_CLOEXEC))
    {
    }

    ~TemporaryFile()
    {
        if (m_descriptor < 0)
            return;
        close(m_descriptor);
        if (!m_replaced)
            unlink(m_name.constData());
    }

    bool isOpen() const { return m_descriptor >= 0; }

    bool write(const QByteArray &content)
    {
        for (int done = 0; done < content.size();) {
            const ssize_t written =
                ::write(m_descriptor, content.constData() + done, content.size() - done);
            if (written >= 0)
                done += static_cast<int>(written);
            else if (errno != EINTR)
                return false;
        }
        return fsync(m_descriptor) == 0;
    }

    /** Owner first: changing it clears some bits of the mode. */
    bool takeOwnerAndMode(const struct stat &status)
    {
        return fchown(m_descriptor, status.st_uid, status.st_gid) == 0
            && fchmod(m_descriptor, status.st_mode & 07777) == 0;
    }

    bool replace(const QByteArray &target)
    {
        m_replaced = rename(m_name.constData(), target.constData()) == 0;
        return m_replaced;
    }

private:
    Q_DISABLE_COPY(TemporaryFile)

    QByteArray m_name;
    const int m_descriptor;
    bool m_replaced = false;
};

/** The folder of a file, as a path that can be opened. */
QByteArray folderOf(const QByteArray &path)
{
    const int slash = path.lastIndexOf('/');
    return slash < 0 ? QByteArray(".") : slash == 0 ? QByteArray("/") : path.left(slash);
}

/** What a chain of symbolic links ends in, which need not exist. */
QByteArray linkTarget(QByteArray path)
{
    char link[PATH_MAX];
    for (int hops = 0; hops < 40; ++hops) { // as many as the kernel follows
        const ssize_t length = readlink(path.constData(), link, sizeof link);
        if (length < 0)
            break;
        const QByteArray target(link, static_cast<int>(length));
        path = target.startsWith('/') ? target : folderOf(path) + '/' + target;
    }
    return path;
}

/** A name in a folder survives a power cut only when the folder itself was written. */
bool syncFolder(const QByteArray &path)
{
    const int descriptor = open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    // EINVAL: the file system keeps its folders safe without being asked.
    const bool synced = fsync(descriptor) == 0 || errno == EINVAL;
    const int savedError = errno;
    close(descriptor);
    errno = savedError;
    return synced;
}

bool makeFolder(const QByteArray &path)
{
    if (access(path.constData(), F_OK) == 0)
        return true;
    const QByteArray parent = folderOf(path);
    return makeFolder(parent) && mkdir(path.constData(), 0755) == 0 && syncFolder(parent);
}

QString failure(const char *action)
{
    return QString::fromLatin1("%1: %2").arg(QString::fromLatin1(action),
                                             QString::fromLocal8Bit(strerror(errno)));
}
} // namespace

QString replaceFile(const QByteArray &path, const QByteArray &content)
{
    const QByteArray target = linkTarget(path);
    const QByteArray folder = folderOf(target);
    if (!makeFolder(folder))
        return failure("cannot make its folder");
    TemporaryFile file(target);
    if (!file.isOpen())
        return failure("cannot make a file in its folder");
    struct stat status;
    if (stat(target.constData(), &status) == 0 && !file.takeOwnerAndMode(status))
        return failure("cannot keep its owner and mode");
    if (!file.write(content))
        return failure("cannot write the new content");
    if (!file.replace(target))
        return failure("cannot replace it");
    if (!syncFolder(folder))
        return failure("cannot make the new content durable");
    return QString();
}
