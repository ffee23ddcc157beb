#ifndef DURATIONS_H
#define DURATIONS_H

/**
 * Every span of time of the virtual daemon, in milliseconds of product time (see Schedule).
 */
namespace Durations {

// The daemon's own timers.
const int Disconnect = 2000; ///< from Device.Disconnect or RemoveDevice to the end of the link
/// From Paired to the daemon's own service search: a 2 s timer of whole seconds, recorded as 1.9 to
/// 2.7 s, and after an unused link has been dropped.
const int ReverseSearch = 2200;
const int SearchKept = 2000; ///< the search's channel stays open after its last answer
const int SessionIdle = 1000; ///< signalling channel without users
const int AnswerLimit = 6000; ///< AVDTP request without an answer
const int ConnectGrace = 2000; ///< from a lost session to the failure of AudioSource.Connect
const int UnusedStream = 20000; ///< stream opened by the phone and never started
const int AutoSuspend = 5000; ///< stream started while no local client has taken it
const int PageTimeout = 5120;
const int AgentRequest = 60000;

// The kernel's.
const int LinkIdle = 2000; ///< link without channels

// What things take without a timer: orders of magnitude.
const int LinkSetup = 40;
const int ChannelSetup = 20;
const int Answer = 15; ///< one answer of a phone
const int PhoneSetup = 60; ///< a phone's discovery, from signalling channel to configuration
const int StateAfterReply = 10; ///< from Connect's reply to State "connected"
const int HangUpNoticed = 20; ///< management back-end: from a link's end to the dead session's
const int PhoneReacts = 100; ///< between two steps of a phone's own
const int AudioAfterPairing = 500; ///< a usual phone, from its pairing to its audio connection
const int AutoPlay = 350; ///< from an open stream to a phone that starts playing by itself
const int Stop = 150; ///< from SIGTERM to the daemon's end
const int StopStreaming = 950; ///< the same with a stream that must be torn down

/// How long an armed reconnect race waits for the Connect call that is to meet it. Real
/// milliseconds: the caller's speed does not scale.
const int RaceHeld = 1000;

} // namespace Durations

#endif
