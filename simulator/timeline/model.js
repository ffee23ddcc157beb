"use strict";

// What happened, made ready for drawing. Nothing here touches the page.

const LANES = [
    {id: "agent", title: "Agent"},
    {id: "bluez", title: "BlueZ"},
    {id: "service", title: "Service"},
    {id: "tool", title: "Commands"},
    {id: "pulse", title: "PulseAudio"},
    {id: "sound", title: "Sound manager"},
    {id: "platform", title: "Platform"},
    {id: "caller", title: "Callers"},
    {id: "daemon", title: "Bus daemon", hidden: true},
    {id: "control", title: "Control"},
];

// Names on the bus and programs, by the lane they are drawn in. All others are callers.
const LANE_OF_NAME = new Map([
    ["service", "service"],
    ["com.orbitalis.ulmo.bluetoothmanager", "service"],
    ["org.bluez", "bluez"],
    ["bluetoothd", "bluez"],
    ["agent", "agent"],
    ["com.orbitalis.ulmo.soundmanager", "sound"],
    ["soundmanager", "sound"],
    ["com.orbitalis.ulmo.platform", "platform"],
    ["platform", "platform"],
    ["org.freedesktop.login1", "platform"],
    ["pulseaudio", "pulse"],
    ["pactl", "pulse"],
    ["org.pulseaudio.Server", "pulse"],
    ["org.freedesktop.DBus", "daemon"],
]);

const STACK_STATES = ["Off", "Starting", "On", "Restart pending"];
const POLICY_STATES = ["Idle", "Seen", "LocalConnecting", "AcceptedRemote", "AcceptedLocal",
                       "Streaming"];

/** The entries as the journal has them: objects with "time", "lane", "kind" and more. */
function unpackEntries(run) {
    return run.entries.map(packed => {
        const entry = {time: packed[0]};
        for (let i = 1; i < packed.length; ++i) {
            const [field, value] = run.pairs[packed[i]];
            entry[field] = value;
        }
        if (entry.kind === "log" && entry.text === undefined)
            entry.text = entry.file === undefined
                ? entry.message
                : `[${entry.file}:${entry.line}] ${entry.function}: ${entry.message}`;
        return entry;
    });
}

/**
 * The entries as things to draw: "marks" at one time in one lane, "bars" (programs) and
 * "activations" (calls being answered) that last, "arrows" between two lanes. Each has the
 * number of its entry; a bar has the one of its start.
 */
function makeItems(entries, runEnd) {
    const items = {marks: [], bars: [], activations: [], arrows: []};
    const running = new Map();
    const calls = new Map();
    entries.forEach((entry, number) => {
        if (entry.lane === "bus")
            addMessage(items, calls, entry, number);
        else if (entry.kind === "start")
            startBar(items, running, entry, number);
        else if (entry.kind === "end")
            endBar(items, running, entry, number);
        else
            items.marks.push({number, time: entry.time, lane: laneOfEntry(entry),
                              style: markStyle(entry), label: entry.message ?? entry.text ?? ""});
    });
    for (const bar of running.values())
        bar.end = runEnd;
    return items;
}

function laneOfEntry(entry) {
    if (entry.lane === "phone")
        return "phone " + (entry.phone ?? "");
    return LANES.some(lane => lane.id === entry.lane) || entry.lane === "board" ? entry.lane
                                                                                : "control";
}

function markStyle(entry) {
    if (entry.kind === "log")
        return "level" + ([1, 2, 4, 9].includes(entry.level) ? entry.level : 4);
    if (entry.kind === "error")
        return "fault";
    return ["phone", "fault", "heard", "output"].includes(entry.kind) ? entry.kind : "note";
}

function commandOf(entry) {
    return [entry.program, ...(entry.arguments ?? [])].join(" ");
}

function startBar(items, running, entry, number) {
    const bar = {number, time: entry.time, end: null, endNumber: null, failed: false, exit: "",
                 lane: laneOfEntry(entry), label: commandOf(entry)};
    items.bars.push(bar);
    running.set(`${entry.program} ${entry.pid}`, bar);
}

function endBar(items, running, entry, number) {
    const key = `${entry.program} ${entry.pid}`;
    const bar = running.get(key);
    if (!bar) {
        items.marks.push({number, time: entry.time, lane: laneOfEntry(entry), style: "note",
                          label: commandOf(entry) + " ended"});
        return;
    }
    running.delete(key);
    bar.end = entry.time;
    bar.endNumber = number;
    if (entry.signal !== undefined)
        bar.exit = entry.signal;
    else if (entry.status !== undefined)
        bar.exit = `exit ${entry.status}`;
    bar.failed = entry.signal !== undefined || (entry.status ?? 0) !== 0;
}

function laneOfName(name) {
    return LANE_OF_NAME.get(name) ?? "caller";
}

function addMessage(items, calls, entry, number) {
    const known = ["call", "reply", "error"].includes(entry.kind);
    const arrow = {number, time: entry.time, kind: known ? entry.kind : "signal", label: messageLabel(entry),
                   from: laneOfName(entry.senderName),
                   to: laneOfName(entry.destinationName ?? entry.destination)};
    if (arrow.kind === "signal" && !entry.destination)
        arrow.to = listenerOf(arrow.from);
    if (arrow.kind === "call") {
        arrow.answer = null;
        calls.set(`${entry.bus} ${entry.sender} ${entry.serial}`, arrow);
    } else if (arrow.kind !== "signal") {
        const key = `${entry.bus} ${entry.destination} ${entry.replySerial}`;
        const call = calls.get(key);
        if (call) {
            // The daemon answers in the place of somebody who is not there.
            [arrow.from, arrow.to] = [call.to, call.from];
            call.answer = number;
            arrow.call = call.number;
            arrow.callTime = call.time;
            items.activations.push({number: call.number, time: call.time, end: entry.time,
                                    lane: call.to, failed: entry.kind === "error"});
            calls.delete(key);
        }
    }
    if (arrow.to === null || arrow.to === arrow.from)
        items.marks.push({number, time: entry.time, lane: arrow.from, style: "message",
                          label: arrow.label});
    else
        items.arrows.push(arrow);
}

/** Who is meant by a signal that is sent to all. */
function listenerOf(lane) {
    if (lane === "service")
        return "caller";
    return ["bluez", "agent", "platform"].includes(lane) ? "service" : null;
}

/** "Connected=true", "SetEnabled(true)", "answers 0": short, for beside an arrow. */
function messageLabel(entry) {
    const values = (entry.arguments ?? []).map(
        value => typeof value === "string" && value !== "" ? value : JSON.stringify(value));
    const member = entry.member ?? "";
    if (entry.kind === "error")
        return String(entry.name ?? "").split(".").pop() || "error";
    if (entry.kind === "reply")
        return shortened(values.join(", "), 24);
    if (member === "PropertyChanged" && values.length === 2)
        return `${values[0]}=${shortened(values[1], 20)}`;
    return `${member}(${shortened(values.join(", "), 28)})`;
}

function shortened(text, length) {
    return text.length > length ? text.slice(0, length - 1) + "\u2026" : text;
}

/** The lanes that have anything in them, in their order; phones come first. */
function usedLanes(items) {
    const counts = new Map();
    const count = lane => counts.set(lane, (counts.get(lane) ?? 0) + 1);
    [...items.marks, ...items.bars].forEach(item => count(item.lane));
    items.arrows.forEach(arrow => { count(arrow.from); count(arrow.to); });
    const phones = [...counts.keys()].filter(id => id.startsWith("phone ")).map(id => {
        const name = id.slice(6);
        return {id, title: /^phone/i.test(name) ? name : `Phone ${name}`};
    });
    return [...phones, ...LANES].filter(lane => counts.has(lane.id)).map(
        lane => ({...lane, count: counts.get(lane.id)}));
}

/** A state in time: pieces with "state", "start" and "end", and what more it is told. */
class Band {
    constructor() {
        this.pieces = [];
    }

    /** No state from here on, when the state is null. */
    enter(state, time, more = {}) {
        const last = this.pieces[this.pieces.length - 1];
        if (last && last.end === null) {
            if (last.state === state && last.device === more.device)
                return;
            last.end = time;
        }
        if (state !== null)
            this.pieces.push({state, start: time, end: null, ...more});
    }

    get state() {
        const last = this.pieces[this.pieces.length - 1];
        return last && last.end === null ? last.state : null;
    }

    finish(time) {
        this.enter(null, time);
        return this.pieces;
    }
}

/** Follows the stack by the service's log lines. */
class StackState {
    constructor() {
        this.band = new Band();
        this.before = "Off"; // a start that was not carried out
        this.restart = false; // the tear-down under way ends in a restart
    }

    begin(time) {
        this.restart = false;
        this.band.enter("Off", time);
    }

    read(message, time) {
        if (message === "startStartupSequence requested") {
            this.before = this.band.state;
            this.band.enter("Starting", time);
        } else if (message === "startStartupSequence bluez already running") {
            this.band.enter(this.before, time);
        } else if (message === "agent started and wait registration") {
            this.band.enter("On", time);
        } else if (message.startsWith("bluezDown down")) {
            this.restart = true;
        } else if (message === "forceSyncDown") {
            this.band.enter(this.restart ? "Restart pending" : "Off", time);
            this.restart = false;
        }
    }
}

const LOG_PROPERTY = /^(Device|AudioSource)PropertyChanged \(\S+\)(\/\S*) (\w+=.*)$/;
const LOG_DEVICE = /^Device (\S+) (CONNECTED AND ACCEPTED|DISCONNECT|DISCONNECTED SO STOP PULSEAUDIO)$/;

/**
 * Follows the connection policy by the service's log lines. As in the service, there is one record
 * of a device ("device", "connected", "local") beside the path of the source being played.
 */
class PolicyState {
    constructor() {
        this.band = new Band();
        this.reconnect = new Band();
        this.record = null;
        this.source = "";
    }

    begin(time) {
        this.forget();
        this.band.enter("Idle", time);
        this.reconnect.enter(null, time);
    }

    forget() {
        this.record = null;
        this.source = "";
    }

    state() {
        if (!this.record)
            return "Idle";
        if (!this.record.connected)
            return this.record.local ? "LocalConnecting" : "Seen";
        if (!this.record.local)
            return "AcceptedRemote";
        return this.source === this.record.device ? "Streaming" : "AcceptedLocal";
    }

    read(message, time) {
        const property = LOG_PROPERTY.exec(message);
        const device = LOG_DEVICE.exec(message);
        if (property)
            this.readProperty(property[1], property[2], property[3]);
        else if (device)
            this.readDevice(device[1], device[2]);
        else if (message === "forceSyncDown" || message.startsWith("pulseaudio down ")
                 || message.startsWith("[!] ULMO IS "))
            this.forget();
        else if (message === "load timer for reconnect" || message === "reconnect")
            this.reconnect.enter("Reconnect pending", time, {device: this.record?.device});
        else if (message.startsWith("connectAudioSource "))
            this.reconnect.enter(null, time);
        this.band.enter(this.state(), time, {device: this.record?.device});
    }

    readProperty(interfaceName, path, change) {
        if (interfaceName !== "AudioSource" || !change.startsWith("State="))
            return;
        this.record ??= {device: path, connected: false, local: false};
        if (this.record.device !== path)
            return;
        if (change === "State=connecting" && !this.record.connected)
            this.record.local = true;
        else if ((change === "State=connected" || change === "State=playing")
                 && this.record.connected && this.record.local)
            this.source = path;
    }

    readDevice(path, what) {
        if (what === "CONNECTED AND ACCEPTED") {
            this.record ??= {device: path, connected: false, local: false};
            this.record.connected = true;
        } else if (this.record?.device === path) {
            this.forget();
        }
    }
}

/** The bands of the picture, from the service's own log lines; only while it runs. */
function makeBands(entries, runEnd) {
    const stack = new StackState();
    const policy = new PolicyState();
    for (const entry of entries) {
        if (entry.lane !== "service")
            continue;
        if (stack.band.state === null && (entry.kind === "start" || entry.kind === "log")) {
            stack.begin(entry.time);
            policy.begin(entry.time);
        }
        if (entry.kind === "log") {
            stack.read(entry.message, entry.time);
            policy.read(entry.message, entry.time);
        } else if (entry.kind === "end") {
            for (const band of [stack.band, policy.band, policy.reconnect])
                band.enter(null, entry.time);
        }
    }
    return {stack: stack.band.finish(runEnd), policy: policy.band.finish(runEnd),
            reconnect: policy.reconnect.finish(runEnd)};
}

/** The outline of the sound: stretches of peaks from -1 to 1, and how high the highest is. */
function unpackSound(sound) {
    if (!sound?.stretches)
        return null;
    let highest = 0;
    const stretches = sound.stretches.map(stretch => {
        const bytes = Uint8Array.from(atob(stretch.peaks), character => character.charCodeAt(0));
        const peaks = Array.from(new Int8Array(bytes.buffer), value => value / 127);
        for (const peak of peaks)
            highest = Math.max(highest, Math.abs(peak));
        return {start: stretch.start, peaks, end: stretch.start + peaks.length / 2 * sound.bucket};
    });
    return {stretches, highest, bucket: sound.bucket, late: sound.late};
}

/**
 * Seconds of the run against seconds as drawn. To scale the two are the same. Shortened, each
 * stretch of half a second and more without any entry is drawn as a short break.
 */
class TimeScale {
    constructor(times, shorten) {
        const start = Math.min(0, times[0]);
        const end = times[times.length - 1];
        this.knots = [{time: start, drawn: start}]; // between two knots time runs evenly
        this.breaks = [];
        const quiet = [];
        for (let i = 1; shorten && i < times.length; ++i) {
            if (times[i] - times[i - 1] >= 0.5)
                quiet.push({start: times[i - 1], end: times[i]});
        }
        const quietSum = quiet.reduce((sum, stretch) => sum + stretch.end - stretch.start, 0);
        // Long enough for its length to be written above, as long as there are not too many.
        const breakLength = Math.max(0.02, (end - start - quietSum)
                                               * Math.min(0.06, 0.45 / quiet.length));
        for (const stretch of quiet)
            this.addBreak(stretch, breakLength);
        const last = this.knots[this.knots.length - 1];
        this.knots.push({time: end, drawn: last.drawn + end - last.time});
        this.start = start;
        this.end = this.knots[this.knots.length - 1].drawn;
    }

    addBreak(stretch, length) {
        const last = this.knots[this.knots.length - 1];
        const drawn = last.drawn + stretch.start - last.time;
        this.knots.push({time: stretch.start, drawn}, {time: stretch.end, drawn: drawn + length});
        this.breaks.push({...stretch, drawn, drawnEnd: drawn + length});
    }

    drawn(time) {
        return TimeScale.between(this.knots, time, "time", "drawn");
    }

    time(drawn) {
        return TimeScale.between(this.knots, drawn, "drawn", "time");
    }

    static between(knots, value, from, to) {
        let low = 0;
        let high = knots.length - 1;
        while (high - low > 1) {
            const middle = (low + high) >> 1;
            if (knots[middle][from] <= value)
                low = middle;
            else
                high = middle;
        }
        const [a, b] = [knots[low], knots[high]];
        const length = b[from] - a[from];
        return a[to] + (length > 0 ? (value - a[from]) / length * (b[to] - a[to])
                                   : value - a[from]);
    }
}
