// All devices of a fleet: how they are, the worst first.
import {live} from "../api.js";
import {badge, empty, h, levelClass, show} from "../dom.js";
import {duration, moment} from "../format.js";

const order = ["bad", "warn", "none", "good"];

function tile(device) {
    return h("a",
        {class: `card device ${levelClass(device.health)}`, href: `#/at/${encodeURIComponent(device.device)}/overview`},
        h("strong", {}, device.device), h("div", {}, badge(device.health)),
        h("div", {class: "small quiet"},
            `${device.daemon_version ?? device.version ?? ""}, up ${duration((device.uptime_ms ?? 0) * 1000)}`),
        h("div", {class: "small quiet"}, `said ${moment(device.seen)}`));
}

export function devices(main) {
    const grid = h("div", {class: "grid"}), none = empty("no device has said that it is there"),
          count = h("span", {class: "right quiet"});
    let known = [];
    const filter = h("input", {
        type: "search",
        placeholder: "Filter by name or health",
        "aria-label": "Filter by name or health",
        oninput: () => draw()
    });
    const rank = device => order.indexOf(levelClass(device.health));
    const draw = () => {
        const wanted = filter.value.toLowerCase();
        const chosen = known.filter(one => `${one.device} ${one.health}`.toLowerCase().includes(wanted))
                           .sort((a, b) => rank(a) - rank(b) || (a.device < b.device ? -1 : 1));
        show(grid, chosen.map(tile));
        none.hidden = chosen.length !== 0;
        count.textContent = `${chosen.length} ${chosen.length === 1 ? "device" : "devices"}, ${
            chosen.filter(one => levelClass(one.health) !== "good").length} not well`;
    };
    show(main, h("h1", {}, "Devices"), h("div", {class: "bar"}, filter, count), grid, none);
    return live({
        devices(reply) {
            if (reply === undefined) return;
            known = reply.devices;
            draw();
        },
    });
}
