// Fatal signals and failed assertions, with registers, modules and stack.
import {ask, follow} from "../api.js";
import {empty, h, notice, show} from "../dom.js";
import {moment} from "../format.js";

function crashItem(crash, isOpen) {
    return h("details", {class: "card", open: isOpen, "data-crash": String(crash.number)},
        h("summary", {}, h("span", {class: "level bad"}, "✕ "), " ",
            h("strong", {}, `${crash.name} (${crash.process})`), " ", crash.what, " ",
            h("span", {class: "quiet"}, moment(crash.time))),
        h("p", {class: "small quiet"},
            `thread ${crash.thread_name} (${crash.thread})${crash.agent ? `, agent ${crash.agent}` : ""}`),
        h("pre", {}, crash.text));
}

export function crashes(main) {
    const over = new AbortController();
    const list = h("div"),
          filter = h("input", {type: "search", placeholder: "Filter", "aria-label": "Filter", oninput: () => draw()});
    let known = null;
    const draw = () => {
        if (known === null) return;
        const open =
            new Set([...list.querySelectorAll("details[open]")].map(one => one.querySelector("summary").textContent));
        const wanted = filter.value.toLowerCase();
        const chosen = known.filter(one => one.text.toLowerCase().includes(wanted));
        const items = chosen.map(one => crashItem(one, false));
        items.forEach(item => item.open = open.has(item.querySelector("summary").textContent));
        if (open.size === 0 && items.length !== 0) items[0].open = true;
        show(list, items.length !== 0 ? items : empty(known.length === 0 ? "no crash is on record" : "no such crash"));
    };
    const load = async () => {
        try {
            known = (await ask("crashes", {}, over.signal)).rows;
            draw();
        } catch (error) {
            if (error.name !== "AbortError") show(list, notice(error.message, "warn"));
        }
    };
    show(main, h("h1", {}, "Crashes"), h("div", {class: "bar"}, filter), list);
    load();
    // A record is looked for when the journal tells of one.
    const isOne = event => event.kind === "crash" || event.kind === "assertion";
    const end = follow({begin() {}, events: events => events.some(isOne) && load(), problem() {}});
    return () => {
        over.abort();
        end();
    };
}
