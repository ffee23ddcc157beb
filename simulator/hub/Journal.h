#ifndef JOURNAL_H
#define JOURNAL_H

#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QObject>

/**
 * The one time-ordered record of everything that happens in the product: a file of one JSON object
 * per line, which always begins with "time", "lane" and "kind".
 */
class Journal : public QObject
{
    Q_OBJECT

public:
    explicit Journal(const QString &fileName, QObject *parent = nullptr);

    bool isOpen() const;
    /// Adds \p entry (which needs "lane" and "kind") with the time of now.
    void record(const QJsonObject &entry);
    /// Everything recorded so far, one line each.
    QByteArray contents() const;

Q_SIGNALS:
    /// A new line, without its end.
    void recorded(const QByteArray &line);

private:
    QFile m_file;
    QElapsedTimer m_clock;
};

#endif
