#ifndef SOUNDTABLE_H
#define SOUNDTABLE_H

#include <QJsonObject>
#include <QString>

#include <optional>
#include <vector>

/// One channel of what is expected or was heard; a silent one has no level.
struct ChannelSound
{
    std::optional<double> frequency; ///< hertz
    std::optional<double> level; ///< decibels below full scale, root mean square
};

/// What the board is expected to play in one situation. Without a level: any sound at all.
struct ExpectedSound
{
    bool silent = false;
    ChannelSound left;
    ChannelSound right;
};

/// What was heard in each situation of a run, beside what was expected.
class SoundTable
{
public:
    /**
     * Waits until the board's output is as expected, or until it is clear that it will not be, and
     * takes down what was heard. Returns whether it was as expected.
     */
    bool measure(const QString &situation, const ExpectedSound &expected);

    /// Whether everything was as expected so far.
    bool allAsExpected() const;

    /// Prints the table, and writes all that was heard to \p wavFile.
    void print(const QString &wavFile) const;

private:
    struct Row
    {
        QString situation;
        ExpectedSound expected;
        ChannelSound left;
        ChannelSound right;
        bool asExpected;
    };

    std::vector<Row> m_rows;
};

#endif
