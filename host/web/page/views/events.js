// The journal: what happened, as it happens.
import {follow} from "../api.js";
import {empty, h, notice, show} from "../dom.js";

import {eventItem, wordsOf} from "./kinds.js";

export function events(main) {
    const list = h("ul", {class: "list"}), none = empty("no event"), problem = notice("", "warn");
    problem.hidden = true;
    const kind = h("select", {"aria-label": "Kind", onchange: () => draw()}, h("option", {value: ""}, "All kinds"));
    const filter = h("input", {
        type: "search",
        placeholder: "Filter by name or text",
        "aria-label": "Filter by name or text",
        oninput: () => draw()
    });
    const count = h("span", {class: "right quiet"});
    let known = [];
    const draw = () => {
        for (const name of new Set(known.map(event => event.kind))) {
            if (![...kind.options].some(option => option.value === name))
                kind.append(h("option", {value: name}, wordsOf(name)));
        }
        const wanted = filter.value.toLowerCase();
        const chosen = known.filter(event => (kind.value === "" || event.kind === kind.value) &&
                `${event.process} ${event.pid} ${event.text} ${wordsOf(event.kind)}`.toLowerCase().includes(wanted));
        show(list, chosen.slice(-500).reverse().map(eventItem));
        none.hidden = chosen.length !== 0;
        count.textContent = `${chosen.length} events`;
    };
    show(main, h("h1", {}, "Events"), problem, h("div", {class: "bar"}, kind, filter, count),
        h("section", {class: "card"}, list, none));
    return follow({
        begin: () => known = [],
        events: more => {
            problem.hidden = true;
            known = known.concat(more).slice(-2000);
            draw();
        },
        problem: text => {
            problem.hidden = text === "";
            problem.textContent = text;
        },
    });
}
