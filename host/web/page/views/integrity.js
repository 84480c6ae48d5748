// Whether the programs that run are those that were recorded; and everything in one archive, for somebody far away.
import {act, collectAddress, live} from "../api.js";
import {card, h, notice, show} from "../dom.js";

const words = {
    none: "Nothing has been measured yet.",
    "no-baseline": "There is nothing recorded to compare with.",
};

export function integrity(main, {server}) {
    const state = h("p", {role: "status"}), text = h("pre"), progress = h("progress", {"aria-label": "measuring"}),
          problem = notice("");
    problem.hidden = progress.hidden = true;
    const button = (title, action, isMain) => h("button", {
        type: "button",
        class: isMain ? "main" : undefined,
        onclick: async event => {
            event.target.disabled = true;
            problem.hidden = true;
            try {
                await act(action);
            } catch (error) {
                problem.hidden = false;
                problem.textContent = error.message;
            }
            event.target.disabled = false;
        }
    },
        title);
    const start = button("Measure", "measure", true), record = button("Record what runs now", "measure-record"),
          cancel = button("Cancel", "measure-cancel");
    const actions = server.allow.includes("commands") ?
        h("div", {class: "bar"}, start, record, cancel) :
        h("p", {class: "small quiet"},
            "To measure from here, tarn-web has to be started with --allow commands; in a terminal: tarnctl measure.");
    const collecting = h("p", {class: "small quiet", role: "status"});
    show(main, h("h1", {}, "Integrity"), problem,
        card("Whether what runs is what was recorded", state, progress, actions, text),
        card("Everything for somebody far away",
            h("p", {}, "Logs, crashes, events, processes, health and settings in one archive."),
            h("p", {},
                h("a", {
                    class: "button",
                    href: collectAddress(),
                    download: true,
                    onclick: () => collecting.textContent = "It is being put together; the browser shows how far it is."
                },
                    "Collect and download")),
            collecting));
    return live({
        measurement(reply, note, error) {
            if (reply === undefined) return;
            const runs = reply.state === "runs";
            progress.hidden = cancel.hidden = !runs;
            start.disabled = record.disabled = runs;
            state.textContent = error || words[reply.state] ||
                (runs ? `It is being measured: ${reply.differences} files differ so far.` :
                        `${reply.state}: ${reply.differences} files differ.`);
            text.textContent = reply.text;
            text.hidden = reply.text === "";
        },
    });
}
