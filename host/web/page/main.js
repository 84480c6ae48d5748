// Which view is shown, and what is around it.
import {about, setDevice, watchState} from "./api.js";
import {h, notice, show} from "./dom.js";
import {crashes} from "./views/crashes.js";
import {devices} from "./views/devices.js";
import {events} from "./views/events.js";
import {health} from "./views/health.js";
import {integrity} from "./views/integrity.js";
import {overview} from "./views/overview.js";
import {process} from "./views/process.js";
import {processes} from "./views/processes.js";
import {settings} from "./views/settings.js";

// A view draws itself into an element and returns what ends it.
const views = {
    overview: {title: "Overview", show: overview},
    processes: {title: "Processes", show: processes},
    process: {show: process, within: "processes"},
    crashes: {title: "Crashes", show: crashes},
    events: {title: "Events", show: events},
    health: {title: "Health", show: health},
    integrity: {title: "Integrity", show: integrity},
    settings: {title: "Settings", show: settings},
};

const main = document.getElementById("view"), nav = document.getElementById("nav");
let server = {allow: [], fleet: false, host: ""}, end = () => {};

// "#/processes", "#/process/12"; of a device of a fleet "#/at/NAME/processes".
function placeOf(hash) {
    const parts = hash.replace(/^#\/?/, "").split("/").map(decodeURIComponent);
    const device = parts[0] === "at" ? parts[1] ?? "" : "";
    const [view = "", ...values] = parts[0] === "at" ? parts.slice(2) : parts;
    return {device, view: view || (server.fleet && device === "" ? "devices" : "overview"), values};
}

export const linkOf = (device, ...parts) =>
    "#/" + [...(device === "" ? [] : ["at", device]), ...parts].map(encodeURIComponent).join("/");

function drawNav(place) {
    const current = views[place.view]?.within ?? place.view;
    const links = server.fleet && place.device === "" ?
        [] :
        Object.entries(views)
            .filter(([, view]) => view.title)
            .map(([name, view]) =>
                     h("a", {href: linkOf(place.device, name), "aria-current": name === current ? "page" : undefined},
                         view.title));
    show(nav,
        server.fleet &&
            h("a", {href: "#/", "aria-current": place.view === "devices" ? "page" : undefined}, "All devices"),
        links);
    document.getElementById("where").textContent = place.device || (server.fleet ? "a fleet" : server.host);
}

function route() {
    end();
    end = () => {};
    const place = placeOf(location.hash);
    setDevice(place.device);
    drawNav(place);
    const view = place.view === "devices" && server.fleet ? {title: "Devices", show: devices} : views[place.view];
    if (view === undefined) {
        show(main, notice(`There is no view called ${place.view}.`, "warn"));
        return;
    }
    document.title = `${view.title ?? "Process"} – Tarn ${place.device || server.host}`;
    show(main);
    end = view.show(main, {server, place, link: (...parts) => linkOf(place.device, ...parts)}) ?? (() => {});
    main.focus({preventScroll: true});
    scrollTo(0, 0);
}

// ---- Light and dark

const themes = ["system", "light", "dark"];
const button = document.getElementById("theme");

function setTheme(theme) {
    if (theme === "system")
        delete document.documentElement.dataset.theme;
    else
        document.documentElement.dataset.theme = theme;
    button.textContent = {system: "◐ Auto", light: "☀ Light", dark: "☾ Dark"}[theme];
    localStorage.setItem("theme", theme);
    document.dispatchEvent(new Event("themechange"));
}

button.addEventListener("click", () => {
    const now = localStorage.getItem("theme") ?? "system";
    setTheme(themes[(themes.indexOf(now) + 1) % themes.length]);
});
matchMedia("(prefers-color-scheme: dark)")
    .addEventListener("change", () => document.dispatchEvent(new Event("themechange")));

// ---- Whether there is something to see

watchState(problem => {
    const away = document.getElementById("away");
    away.hidden = problem === "";
    away.textContent = problem === "" ?
        "" :
        `${problem}. What is shown is from before; this goes on by itself once there is an answer.`;
    const state = document.getElementById("state");
    state.className = problem === "" ? "" : "away";
    state.title = problem;
    state.textContent = problem === "" ? "live" :
        problem.startsWith("tarn-web") ? "tarn-web is away" :
                                         "the daemon is away";
});

setTheme(localStorage.getItem("theme") ?? "system");
try {
    server = await about();
    addEventListener("hashchange", route);
    route();
} catch (error) {
    show(main, notice(error.message), h("p", {}, h("a", {href: "/"}, "Try again")));
}
