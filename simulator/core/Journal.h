#ifndef JOURNAL_H
#define JOURNAL_H

#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QObject>
#include <QString>

/**
 * What happens in the virtual product, written down as it happens: one JSON object per line. Its
 * text `line` is the one rendering for people and stories; the other fields are the raw facts.
 */
class Journal : public QObject
{
    Q_OBJECT

public:
    explicit Journal(const QString &fileName, QObject *parent = nullptr);

    /// Why it cannot be written; empty while all is well.
    QString error() const;
    /// Writes an entry of \p lane ("bluez", ...) and \p kind ("signal", ...), stamped with the
    /// time.
    void record(const char *lane, const char *kind, const QString &line,
                const QJsonObject &facts = {});
    /// Everything written so far, one entry per line.
    QByteArray contents() const;

signals:
    /// \p entry is the JSON text without the newline.
    void recorded(const QByteArray &entry);

private:
    QFile m_file;
    QElapsedTimer m_clock;
};

#endif
