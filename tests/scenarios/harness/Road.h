#ifndef ROAD_H
#define ROAD_H

#include "VirtualProduct.h"

/**
 * A product that is switched on, and the phones that come to it.
 *
 * BlueZ's own timers run twenty times as fast here, and a phone that is new is connected again
 * after 100 ms. What the service does is told in lines:
 *   "4 Disconnect {anna}"               a log line with its level
 *   "$ hciconfig hci0 up"               a command
 *   "& pulseaudio --system"             a child process
 *   "> Device.Disconnect {anna}"        a call to BlueZ: method, object and arguments
 *   "@ StopPlay bluetooth ''"           a call to the sound manager
 *   "@ DisconnectAudioDevice"           a signal of the service
 * where {anna} stands for the path of the phone of that name and {adapter} for the adapter's. The
 * trace of every property change is left out. Log lines and commands are in order among each
 * other; children, calls to BlueZ, and calls and signals on the session bus in an order of their
 * own, since they come to the journal on ways of their own.
 */
class Road : public VirtualProduct
{
public:
#define HERE_BY_DEFAULT Place place = { __builtin_FILE(), __builtin_LINE() }

    /// The phones that there can be: their addresses begin alike and end as given here.
    static const QMap<QString, QString> Phones;

    explicit Road(const Options &options, HERE_BY_DEFAULT);
    explicit Road(HERE_BY_DEFAULT);

    /// Has the phone \p name in range; \p traits: "" (new), "known" or "trusted", which is both.
    void meet(const QString &name, const QString &traits = "trusted", HERE_BY_DEFAULT);
    /// Has that phone connect and waits until the unit has asked to play it.
    void stream(const QString &name = "anna", HERE_BY_DEFAULT);
    /**
     * Brings a new product to where the phone "anna" is
     *   "idle"       in range only
     *   "accepted"   connected, waiting to be connected again by the unit
     *   "polling"    connected by the unit, PulseAudio not answering yet
     *   "linking"    the same, its source not there yet
     *   "streaming"  played, but silent
     *   "playing"    heard
     * The phone is trusted, but for "accepted". PulseAudio stays as it is until "fault clear".
     */
    void bring(const QString &state, HERE_BY_DEFAULT);
    /// Options with which "accepted" lasts for \p milliseconds.
    static Options acceptedFor(int milliseconds);

    /// The object path of the phone, or of the "adapter", in the BlueZ that was started last.
    QString path(const QString &name);
    /// Carries out a control line with {anna} and the like in it.
    QString tell(const QString &line, HERE_BY_DEFAULT);
    /// Waits until the service has handled all that was sent to it so far, and gives the position.
    int settle(HERE_BY_DEFAULT);

    /// Waits for the next deed with this line; a "*" at its end stands for anything.
    QJsonObject await(const QString &line, HERE_BY_DEFAULT);
    /// Waits for the deeds \p lines from \p from on, whatever else there is in between.
    void awaitAll(int from, const QStringList &lines, HERE_BY_DEFAULT);
    /// Waits until the phone \p name is in \p state ("link-down" and the like) from \p from on.
    void awaitPhone(int from, const QString &name, const QString &state, HERE_BY_DEFAULT);
    /// Everything done from \p from on, the kinds one after the other.
    QStringList deeds(int from);
    /// Those deeds that begin with one of \p beginnings.
    QStringList deeds(int from, const QStringList &beginnings);

    /// \name Stories of the phone \p name
    /// @{
    /// The unit drops the connection and makes it again.
    static QStringList madeAgain(const QString &name = "anna");
    /// The unit takes the connection for its own and starts the sound server.
    static QStringList ownConnection(const QString &name = "anna");
    /// The sound path is up and the sound manager is asked to play it.
    static QStringList playback(const QString &name = "anna");
    /// The phone is gone and so is the sound.
    static QStringList gone(const QString &name = "anna");
    /// The unit forgets the phone.
    static QStringList forgotten(const QString &name = "anna");
    /// @}

#undef HERE_BY_DEFAULT

private:
    /// \p text with the paths in place of {anna} and the like.
    QString resolved(QString text);
    /// Sorted into the kinds that have an order of their own; each keeps it.
    static QStringList inKinds(const QStringList &lines);
    /// The line of an entry; empty when it tells no deed of the service.
    static QString lineOf(const QJsonObject &entry);

    int m_settled = 0;
};

#endif
