// Events as they are shown: what kind they are, in words, and how serious.
import {h} from "../dom.js";
import {moment} from "../format.js";

const bad = new Set(["crash", "assertion", "dead-loop", "memory-damage", "integrity"]);
const warn = new Set(["cpu-overload-begins", "memory-overload-begins", "starvation", "leak-suspect"]);

export const levelOf = kind => bad.has(kind) ? "bad" : warn.has(kind) ? "warn" : "none";

// The mark of a plot's time axis; undefined for what has none.
export function markOf(kind) {
    if (kind === "crash" || kind === "assertion") return "crash";
    if (kind.endsWith("-overload-begins")) return "overload";
    return kind === "setting" ? "setting" : undefined;
}

export const wordsOf = kind => kind.replaceAll("-", " ");

export function eventItem(event) {
    const who = event.process === "" ? "" : `${event.process}${event.pid ? ` (${event.pid})` : ""}`;
    return h("li", {}, h("time", {datetime: new Date(event.time_ms).toISOString()}, moment(event.time_ms)),
        h("span", {class: `kind level ${levelOf(event.kind)}`}, wordsOf(event.kind)),
        h("span", {class: "what"}, who !== "" && h("strong", {}, who), who !== "" && event.text !== "" && ": ",
            event.text));
}
