// How the machine is now, and what happened in the last hour.
import {follow, live} from "../api.js";
import {badge, card, empty, h, show} from "../dom.js";
import {bytes, permille} from "../format.js";
import {marks, Plot} from "../plot.js";

import {eventItem, markOf} from "./kinds.js";

const hour = 3600 * 1000;

function figure(label) {
    const value = h("div", {class: "figure"}, "–"), below = h("div", {class: "small quiet"}, " ");
    return {
        element: h("section", {class: "card"}, h("div", {class: "label"}, label), value, below),
        set(text, more) {
            value.replaceChildren(text);
            below.textContent = more;
        }
    };
}

// The busy processors, one meter each.
class Meters {
    element = h("div", {class: "meters"});
    rows = new Map();

    set(cpus) {
        for (const cpu of cpus) {
            if (!this.rows.has(cpu.name)) {
                const meter = h("meter", {min: 0, max: 1000, "aria-label": cpu.name}), text = h("span");
                this.rows.set(cpu.name, {meter, text});
                this.element.append(h("div", {class: "meter"}, h("span", {}, cpu.name), meter, text));
            }
            const {meter, text} = this.rows.get(cpu.name);
            meter.value = cpu.busy_permille;
            text.textContent = permille(cpu.busy_permille);
        }
    }
}

// "0.4 % of the last 10 s some task waited, ...": the share.
const shareOf = item => item?.found.match(/^[\d.]+ %/)?.[0] ?? "unknown";

export function overview(main, {link}) {
    const cpu = figure("CPUs busy"), memory = figure("Memory in use"), load = figure("Load"), level = figure("Health");
    const pressures = h("dl", {class: "facts tight"}), pressure = {
        element: h("section", {class: "card"}, h("div", {class: "label"}, "Tasks that waited, last 10 s"), pressures)
    };
    const meters = new Meters();
    const minute = new Plot({
        series: [{label: "CPUs busy"}, {label: "waiting for I/O", dash: [5, 3]}],
        span: 120000,
        most: 100,
        unit: value => `${value} %`,
        label: "CPUs in the last two minutes",
        low: true
    });
    const past = new Plot({
        series:
            [{label: "CPUs busy"}, {label: "waiting for I/O", dash: [5, 3]}, {label: "memory in use", dash: [2, 2]}],
        span: hour,
        most: 100,
        unit: value => `${value} %`,
        label: "CPUs and memory in the last hour"
    });
    const list = h("ul", {class: "list"}), none = empty("nothing has happened in the last hour");
    const note = h("p", {class: "small quiet"});
    const legend = h("p", {class: "small quiet"}, Object.entries(marks).map(([name, {sign}]) => `${sign} ${name}   `));

    show(main, h("h1", {}, "Overview"),
        h("div", {class: "cards"}, [cpu, memory, pressure, load, level].map(one => one.element)),
        h("div", {class: "pair"}, card("CPUs now", meters.element), card("The last two minutes", minute.element)),
        card("The last hour", past.element, legend, note),
        card("What happened", list, none, h("p", {class: "small"}, h("a", {href: link("events")}, "All events"))));

    const endLive = live({
        cpus(reply) {
            if (reply === undefined) return;
            const [all, ...each] = reply.cpus;
            cpu.set(permille(all.busy_permille),
                `user ${permille(all.user_permille)}, system ${permille(all.system_permille)}`);
            meters.set(each);
            minute.add(Date.now(), [all.busy_permille / 10, all.waiting_permille / 10]);
        },
        memory(reply) {
            if (reply !== undefined)
                memory.set(permille(reply.now_permille), `${bytes(reply.available_bytes)} available`);
        },
        cpu(reply, said) {
            if (reply === undefined) return;
            load.set((reply.load_thousandths / 1000).toFixed(2),
                `highest of an hour ${permille(reply.highest_permille)} busy`);
            note.textContent = said;
        },
        health(reply) {
            if (reply === undefined) return;
            const item = name => reply.items.find(one => one.name === name);
            show(pressures, [["CPU", "cpu"], ["Memory", "memory"], ["I/O", "io"]].map(([title,
                name]) => [h("dt", {}, title), h("dd", {}, shareOf(item(`${name}-pressure`)))]));
            const worse = reply.items.filter(one => one.level === "bad" || one.level === "degraded");
            level.set(badge(reply.on ? reply.level : "off"),
                worse.length === 0 ? `${reply.items.length} items` : worse.map(one => one.name).join(", "));
        },
        figures(reply) {
            if (reply === undefined) return;
            past.set(reply.minutes.map(
                one => [one.time_ms, one.busy_permille / 10, one.waiting_permille / 10,
                    one.memory_kb > 0 ? Math.round(1000 * (1 - one.available_kb / one.memory_kb)) / 10 : null]));
        },
    });

    let known = [];
    const draw = () => {
        const recent = known.filter(event => event.time_ms > Date.now() - hour);
        past.mark(
            recent.filter(event => markOf(event.kind)).map(event => ({time: event.time_ms, kind: markOf(event.kind)})));
        show(list, recent.slice(-8).reverse().map(eventItem));
        none.hidden = recent.length !== 0;
    };
    const endEvents = follow({
        begin: () => known = [],
        events: list => {
            known = known.concat(list).slice(-1000);
            draw();
        },
        problem: () => {},
    });
    const paint = () => [minute, past].forEach(one => one.paint());
    document.addEventListener("themechange", paint);
    return () => {
        endLive();
        endEvents();
        document.removeEventListener("themechange", paint);
        [minute, past].forEach(one => one.end());
    };
}
