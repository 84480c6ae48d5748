// Each item that the daemon looks at, and what it found.
import {live} from "../api.js";
import {badge, h, notice, show} from "../dom.js";
import {moment} from "../format.js";

// A device of a fleet tells its local time, and may be in another zone than this.
export function health(main, {place}) {
    const isHere = place.device === "";
    const worst = h("p"), list = h("tbody"),
          off = notice("The health items are switched off: nothing is looked at.", "warn");
    off.hidden = true;
    show(main, h("h1", {}, "Health"), off, worst,
        h("section", {class: "card scroll"},
            h("table", {},
                h("thead", {},
                    h("tr", {}, ["Level", "Item", "Found"].map(title => h("th", {scope: "col"}, title)),
                        isHere && h("th", {scope: "col", class: "wide"}, "Looked at"))),
                list)));
    const order = ["bad", "degraded", "unknown", "good"];
    return live({
        health(reply) {
            if (reply === undefined) return;
            off.hidden = reply.on;
            show(worst, "The worst level is ", badge(reply.level), ".");
            const items = [...reply.items].sort((a, b) => order.indexOf(a.level) - order.indexOf(b.level));
            show(list,
                items.map(
                    item => h("tr", {}, h("td", {}, badge(item.level)),
                        h("td", {class: "name"}, item.name,
                            item.source !== "system" && h("span", {class: "quiet"}, ` of ${item.source}`)),
                        h("td", {}, item.found), isHere && h("td", {class: "wide quiet"}, moment(item.looked_at)))));
        },
    });
}
