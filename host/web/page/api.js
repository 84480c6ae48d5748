// What the server tells: answers, and what comes by itself.

let device = "";

// Whose all that follows is; empty for the machine's own.
export function setDevice(name) { device = name; }

function address(path, values = {}) {
    const query = new URLSearchParams(values);
    if (device !== "") query.set("device", device);
    const text = query.toString();
    return text === "" ? path : `${path}?${text}`;
}

export class Refused extends Error {}

async function read(response) {
    const type = response.headers.get("Content-Type") ?? "";
    if (!type.startsWith("application/json")) throw new Refused((await response.text()).trim() || response.statusText);
    const answer = await response.json();
    if (answer.error !== undefined) throw new Refused(answer.error);
    return answer;
}

async function send(path, values, options) {
    let response;
    try {
        response = await fetch(address(path, values), options);
    } catch {
        throw new Refused("tarn-web does not answer; does it still run?");
    }
    return read(response);
}

export const about = () => send("/api/about");
// The rows of a question, with the note that came with them.
export const ask = (name, values, signal) => send(`/api/ask/${name}`, values, {signal});
export const act = (name, words) =>
    send(`/api/do/${name}`, {}, {method: "POST", body: JSON.stringify({words: words ?? []})});
export const collectAddress = () => address("/api/collect");

// ---- What comes by itself

// Who wants to know whether the daemon answers.
let onState = () => {};
export function watchState(handler) { onState = handler; }

function open(path, values, handlers) {
    const source = new EventSource(address(path, values));
    for (const [name, handler] of Object.entries(handlers)) {
        source.addEventListener(name, event => handler(JSON.parse(event.data)));
    }
    source.onerror = () => onState("tarn-web does not answer");
    return () => source.close();
}

// Calls handlers[topic](reply, note, error) for each answer; returns what ends it. Topics that a name can't have
// are "threads:PID".
export function live(handlers) {
    const wrapped = {};
    for (const [topic, handler] of Object.entries(handlers)) {
        wrapped[topic] = answer => {
            onState(answer.reply === undefined ? answer.error : "");
            handler(answer.reply, answer.note ?? "", answer.error ?? "");
        };
    }
    return open("/api/live", {topics: Object.keys(handlers).join(",")}, wrapped);
}

// The journal, from its last thousand events on.
export const follow = ({begin, events, problem}) =>
    open("/api/events", {}, {begin, events, problem: answer => problem(answer.error)});
