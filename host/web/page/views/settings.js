// Thresholds and switches, and whose they are; forms where the server allows it.
import {act, ask} from "../api.js";
import {h, notice, show} from "../dom.js";

const titles = {
    cpu: "CPU overload",
    memory: "Memory overload",
    starvation: "Starvation",
    measurement: "Measurement",
    date: "Dates",
    health: "Health"
};

function rangeOf({least, most, zero}) {
    const range = most === undefined ? "" : `${least} to ${most}`;
    const none = zero === undefined ? "" : `0: ${zero}`;
    return [range, none].filter(Boolean).join("; ");
}

// What a person changes it with.
function control(setting, name) {
    const words = setting.accepts.words;
    if (typeof setting.value === "boolean") return h("input", {type: "checkbox", id: name, checked: setting.value});
    if (words)
        return h("select", {id: name},
            words.map(word => h("option", {value: word, selected: word === setting.value}, word)));
    return h("input", {id: name, value: setting.text, autocomplete: "off", spellcheck: false});
}

const valueOf = input => input.type === "checkbox" ? (input.checked ? "on" : "off") : input.value.trim();

function row(setting, mayChange, saved) {
    const name = `setting-${setting.name}`, input = control(setting, name), before = valueOf(input);
    const wrong = h("div", {class: "wrong", role: "alert"});
    input.disabled = !mayChange;
    const save = h("button", {type: "submit", disabled: true}, "Set");
    input.addEventListener("input", () => save.disabled = valueOf(input) === before);
    const submit = async event => {
        event.preventDefault();
        save.disabled = true;
        wrong.textContent = "";
        try {
            await act("settings", [`${setting.name}=${valueOf(input).replaceAll(" ", "")}`]);
            saved(`${setting.name} is set.`);
        } catch (error) {
            wrong.textContent = error.message;
            save.disabled = false;
        }
    };
    const range = rangeOf(setting.accepts);
    return h("form", {class: "setting", "data-setting": setting.name, onsubmit: submit},
        h("label",
            {for: name
            },
            setting.name),
        input, h("div", {class: "small"}, mayChange && save, " ", h("span", {class: "quiet"}, `by ${setting.source}`)),
        h("div", {class: "hint"}, setting.meaning, range !== "" && ` (${range})`), wrong);
}

export function settings(main, {server}) {
    const over = new AbortController();
    const mayChange = server.allow.includes("settings"), list = h("div", {class: "settings"}),
          said = h("p", {class: "quiet", role: "status"});
    const load = async text => {
        try {
            const {rows} = await ask("settings", {}, over.signal);
            const groups = Map.groupBy ? Map.groupBy(rows, one => one.name.split(".")[0]) : new Map([["", rows]]);
            show(list,
                [...groups].map(([group, members]) => h("section", {class: "card"}, h("h2", {}, titles[group] ?? group),
                                    members.map(one => row(one, mayChange, load)))));
            said.textContent = text ?? "";
        } catch (error) {
            if (error.name !== "AbortError") show(list, notice(error.message, "warn"));
        }
    };
    const reset = h("button", {
        type: "button",
        onclick: async () => {
            if (!confirm("Give up what clients have set, for what the master has or the default?")) return;
            await act("settings-reset")
                .then(() => load("What clients had set is given up."), error => load(error.message));
        }
    },
        "Give up what was set");
    show(main, h("h1", {}, "Settings"),
        mayChange ? h("div", {class: "bar"}, reset, said) :
                    notice("Nothing can be changed from here: tarn-web was started without --allow settings.", "none"),
        list);
    load();
    return () => over.abort();
}
