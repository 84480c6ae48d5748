// A flame graph: how often which function was seen, above the one that called it. It zooms and is searched.
import {h, show} from "./dom.js";

const rowHeight = 20, width = 1000;

// Rows {functions, samples}, the outermost function first, as a tree of {name, samples, parts}.
function treeOf(rows) {
    const root = {name: "all", samples: 0, parts: new Map()};
    for (const {functions, samples} of rows) {
        let node = root;
        node.samples += samples;
        for (const name of functions) {
            if (!node.parts.has(name)) node.parts.set(name, {name, samples: 0, parts: new Map(), above: node});
            node = node.parts.get(name);
            node.samples += samples;
        }
    }
    return root;
}

// The same colour for the same name, warm and not too strong for black letters.
function fillOf(name) {
    let sum = 0;
    for (const letter of name) sum = (sum * 31 + letter.codePointAt(0)) % 9973;
    return `hsl(${20 + sum % 35} ${70 + sum % 20}% ${66 + sum % 12}%)`;
}

const depthOf = node => 1 + Math.max(0, ...[...node.parts.values()].map(depthOf));

export class Flame {
    constructor(rows) {
        this.root = this.zoomed = treeOf(rows);
        this.searched = "";
        this.told = h("p", {class: "small quiet", role: "status"});
        this.graph = h("div", {class: "flame-graph"});
        this.back = h("button", {type: "button", onclick: () => this.zoom(this.root)}, "Show all");
        this.element = h("div", {},
            h("div", {class: "bar"}, h("input", {
                type: "search",
                placeholder: "Search a function",
                "aria-label": "Search a function",
                oninput: event => this.search(event.target.value)
            }),
                this.back, this.told),
            this.graph);
        this.draw();
    }

    search(text) {
        this.searched = text.toLowerCase();
        this.draw();
    }

    zoom(node) {
        this.zoomed = node;
        this.draw();
        this.graph.querySelector("g")?.focus();
    }

    isFound(node) { return this.searched !== "" && node.name.toLowerCase().includes(this.searched); }

    // Samples with a found function somewhere; what is above one is not counted again.
    foundIn(node) {
        if (this.isFound(node)) return node.samples;
        let found = 0;
        for (const part of node.parts.values()) found += this.foundIn(part);
        return found;
    }

    shareText(node) {
        return `${node.name}: ${node.samples} of ${this.root.samples} samples, ${
            (100 * node.samples / this.root.samples).toFixed(1)} %`;
    }

    frame(node, left, right, row, depth) {
        const wide = right - left;
        if (wide < 1) return [];
        const top = (depth - row - 1) * rowHeight;
        const letters = Math.floor((wide - 8) / 7.3);
        const text = node.name.length <= letters ? node.name : letters > 3 ? `${node.name.slice(0, letters - 1)}…` : "";
        const zoom = () => this.zoom(node);
        const box = h("rect", {
            x: left,
            y: top,
            width: wide,
            height: rowHeight - 1,
            fill: fillOf(node.name),
            class: this.isFound(node) ? "found" : undefined
        });
        const group = h("g", {
            tabindex: "0",
            role: "button",
            "aria-label": this.shareText(node),
            onclick: zoom,
            onkeydown: event => {
                if (event.key === "Enter") zoom();
                if (event.key === "Escape") this.zoom(this.zoomed.above ?? this.root);
            },
            onfocus: () => this.told.textContent = this.shareText(node)
        },
            h("title", {}, this.shareText(node)), box, text !== "" && h("text", {x: left + 4, y: top + 14}, text));
        const groups = [group];
        let at = left;
        for (const part of [...node.parts.values()].sort((a, b) => b.samples - a.samples)) {
            const end = at + wide * part.samples / node.samples;
            groups.push(...this.frame(part, at, end, row + 1, depth));
            at = end;
        }
        return groups;
    }

    draw() {
        const depth = depthOf(this.zoomed), height = depth * rowHeight;
        show(this.graph,
            h("svg", {class: "flame", viewBox: `0 0 ${width} ${height}`, role: "group", "aria-label": "Flame graph"},
                this.frame(this.zoomed, 0, width, 0, depth)));
        this.back.disabled = this.zoomed === this.root;
        const found = this.foundIn(this.root);
        this.told.textContent = this.searched === "" ?
            `${this.root.samples} samples; a click or Enter zooms, Escape goes back` :
            `${(100 * found / this.root.samples).toFixed(1)} % of the samples are in it`;
    }
}
