// One process: its threads, its CPU time and memory, what it maps, and what it is doing.
import {ask, live} from "../api.js";
import {card, empty, h, notice, show} from "../dom.js";
import {Flame} from "../flame.js";
import {bytes, duration, permille} from "../format.js";
import {Plot} from "../plot.js";
import {Table} from "../table.js";

const threadColumns = [
    {key: "thread", title: "Thread", number: true},
    {key: "name", title: "Name"},
    {key: "cpu", title: "CPU", number: true, value: row => row.cpu_permille, text: row => permille(row.cpu_permille)},
    {
        key: "time",
        title: "CPU time",
        number: true,
        value: row => row.cpu_time_us,
        text: row => duration(row.cpu_time_us)
    },
    {key: "state", title: "State", wide: true},
    {key: "scheduled", title: "Scheduled", wide: true},
];
const mapColumns = [
    {key: "name", title: "File"},
    {key: "mappings", title: "Mappings", number: true, wide: true},
    {key: "size", title: "Size", number: true, text: row => bytes(row.size)},
    {key: "resident", title: "Resident", number: true, text: row => bytes(row.resident)},
    {key: "proportional", title: "Proportional", number: true, wide: true, text: row => bytes(row.proportional)},
    {key: "dirty", title: "Private, changed", number: true, wide: true, text: row => bytes(row.dirty)},
];

// The mappings of each file together.
function byFile(rows) {
    const files = new Map();
    for (const row of rows) {
        const name = row.name || "(anonymous)";
        const file = files.get(name) ?? {name, mappings: 0, size: 0, resident: 0, proportional: 0, dirty: 0};
        file.mappings += 1;
        file.size += row.size_bytes;
        file.resident += row.resident_bytes;
        file.proportional += row.proportional_bytes;
        file.dirty += row.private_dirty_bytes;
        files.set(name, file);
    }
    return [...files.values()];
}

// A part of the view that is asked for, with its reason where that fails.
async function fill(element, work) {
    show(element, h("p", {class: "quiet", role: "status"}, "asking…"));
    try {
        show(element, await work());
    } catch (error) {
        if (error.name !== "AbortError") show(element, notice(error.message, "warn"));
    }
}

// `threads` is a choice among them, which the view keeps up to date.
function stacks(process, threads, signal) {
    const result = h("div");
    const samples = h("select", {"aria-label": "How often"},
        [20, 50, 100, 250].map(count => h("option", {value: String(count), selected: count === 50}, `${count} times`)));
    const sample = h("button", {
        type: "button",
        class: "main",
        onclick: async () => {
            sample.disabled = true;
            await fill(result, async () => {
                const {rows} = await (threads.value === "" ?
                        ask("stacks", {process, samples: samples.value}, signal) :
                        ask("stacks-of-thread", {process, thread: threads.value, samples: samples.value}, signal));
                return rows.length === 0 ? empty("nothing was seen") : new Flame(rows).element;
            });
            sample.disabled = false;
        }
    },
        "Look at its stacks");
    return card("What it is doing",
        h("div", {class: "bar"}, sample, threads, samples,
            h("span", {class: "small quiet"}, "Each look stops each thread for some microseconds.")),
        result);
}

export function process(main, {place}) {
    const id = place.values[0] ?? "";
    if (!/^\d{1,10}$/.test(id)) {
        show(main, notice(`"${id}" is no process id.`, "warn"));
        return undefined;
    }
    const over = new AbortController();
    const title = h("h1", {}, `Process ${id}`), facts = h("div"), history = h("div"), maps = h("div"), leak = h("div");
    const threads = new Table({id: row => row.thread, sort: "cpu", columns: threadColumns, none: "it has ended"});
    const plot = new Plot({
        series: [{label: "CPU"}],
        span: 120000,
        most: 100,
        unit: value => `${value} %`,
        label: "CPU time of the process",
        low: true
    });
    const memory = new Plot({
        series: [{label: "resident memory"}],
        span: 3600000,
        most: 0,
        unit: bytes,
        label: "Resident memory of the process",
        low: true
    });
    const choice = h("select", {"aria-label": "Which threads"}, h("option", {value: ""}, "all threads"));
    const offer = rows => {
        const known = new Set([...choice.options].map(option => option.value));
        choice.append(...rows.filter(row => !known.has(String(row.thread)))
                          .map(row => h("option", {value: String(row.thread)}, `${row.name} (${row.thread})`)));
    };
    const ended = notice("This process has ended, or this user may not see it.", "warn");
    ended.hidden = true;
    show(main, title, ended,
        h("div", {class: "pair"}, card("CPU, the last two minutes", plot.element),
            card("Memory, the last hour", memory.element, history)),
        stacks(id, choice, over.signal), card("Threads", threads.element),
        h("div", {class: "pair"}, card("Memory", facts), card("Growth", leak)), card("What it maps, by file", maps));

    const signal = over.signal;
    fill(facts, async () => {
        const {rows: [row]} = await ask("memory", {process: id}, signal);
        title.textContent = `${row.name} (${id})`;
        document.title = `${row.name} – Tarn`;
        const shown = [
            ["Program", row.program], ["User", row.user], ["Parent", row.parent], ["State", row.state],
            ["Resident", `${bytes(row.resident_bytes)}, at most ${bytes(row.resident_peak_bytes)}`],
            ["of it its own", bytes(row.resident_anonymous_bytes)], ["Virtual", bytes(row.virtual_bytes)],
            ["Swapped", bytes(row.swapped_bytes)], ["Major faults", row.major_faults],
            ["Out-of-memory score", row.oom_score]
        ];
        return h("dl", {class: "facts"}, shown.map(([name, value]) => [h("dt", {}, name), h("dd", {}, String(value))]));
    });
    fill(history, async () => {
        const {rows, note} = await ask("history", {process: id}, signal);
        memory.set(rows.map(row => [Date.parse(row.time), row.resident_bytes]));
        return rows.length === 0 ? h("p", {class: "small quiet"}, note || "no sample yet") : "";
    });
    fill(leak, async () => {
        const {rows} = await ask("leaks", {}, signal);
        const suspect = rows.find(row => String(row.process) === id);
        return suspect === undefined ?
            h("p", {}, "It does not grow without giving back.") :
            h("p", {}, h("span", {class: "level warn"}, "! suspect"),
                ` grew by ${bytes(suspect.grown_bytes)} in ${duration(suspect.over_us)}: ${
                    bytes(suspect.bytes_per_minute)} a minute, give or take ${bytes(suspect.bytes_per_minute_error)}`);
    });
    fill(maps, async () => {
        const {rows} = await ask("maps", {process: id}, signal);
        const table = new Table(
            {id: row => row.name, sort: "resident", columns: mapColumns, none: "no mappings: it is the kernel's"});
        table.set(byFile(rows));
        return table.element;
    });
    const endLive = live({
        [`threads:${id}`](reply, note, error) {
            ended.hidden = error === "";
            if (error !== "") {
                ended.textContent = error;
                return;
            }
            threads.set(reply.threads);
            offer(reply.threads);
            plot.add(Date.now(), [reply.cpu_permille / 10]);
        },
    });
    const paint = () => [plot, memory].forEach(one => one.paint());
    document.addEventListener("themechange", paint);
    return () => {
        over.abort();
        endLive();
        document.removeEventListener("themechange", paint);
        [plot, memory].forEach(one => one.end());
    };
}
