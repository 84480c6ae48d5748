// Which processes there are, and what each uses.
import {live} from "../api.js";
import {h, show} from "../dom.js";
import {bytes, duration, permille} from "../format.js";
import {filterBox, Table} from "../table.js";

export function processes(main, {link}) {
    const table = new Table({
        id: row => `${row.process} ${row.started}`,
        sort: "cpu",
        most: 400,
        none: "no such process",
        columns: [
            {key: "process", title: "Process", number: true},
            {
                key: "name",
                title: "Name",
                cell: row => row.process === 0 ? document.createTextNode(row.name) :
                                                 h("a", {href: link("process", row.process)}, row.name)
            },
            {
                key: "cpu",
                title: "CPU",
                number: true,
                value: row => row.cpu_permille,
                text: row => permille(row.cpu_permille)
            },
            {
                key: "resident",
                title: "Memory",
                number: true,
                value: row => row.resident_bytes,
                text: row => bytes(row.resident_bytes)
            },
            {key: "threads", title: "Threads", number: true, wide: true},
            {
                key: "time",
                title: "CPU time",
                number: true,
                wide: true,
                value: row => row.user_time_us + row.system_time_us,
                text: row => duration(row.user_time_us + row.system_time_us)
            },
            {key: "state", title: "State", wide: true},
            {key: "user", title: "User", wide: true},
        ],
    });
    const count = h("span", {class: "quiet"}), note = h("p", {class: "small quiet"});
    const pause = h("input", {type: "checkbox"});
    show(main, h("h1", {}, "Processes"),
        h("div", {class: "bar"}, filterBox(table, "Filter by name, user, id"), h("label", {}, pause, " Hold still"),
            h("span", {class: "right"}, count)),
        h("section", {class: "card"}, table.element), note);
    return live({
        processes(reply, said) {
            if (reply === undefined || pause.checked) return;
            table.set(reply.processes);
            count.textContent = `${reply.processes.filter(one => one.process !== 0).length} processes`;
            note.textContent = said;
        },
    });
}
