// Elements of the page. Texts become text nodes, whatever is in them: nothing here reads HTML.

const svgNames = new Set(["svg", "g", "rect", "text", "title"]);

const isThere = child => child !== null && child !== undefined && child !== false;

// h("td", {class: "number", onclick: handler}, "text", element, ...)
export function h(name, attributes = {}, ...children) {
    const isSvg = svgNames.has(name);
    const element = isSvg ? document.createElementNS("http://www.w3.org/2000/svg", name) : document.createElement(name);
    for (const [key, value] of Object.entries(attributes)) {
        if (value === undefined || value === null || value === false) continue;
        if (key.startsWith("on"))
            element.addEventListener(key.slice(2), value);
        else if (key in element && !isSvg && typeof value !== "string")
            element[key] = value;
        else
            element.setAttribute(key, value === true ? "" : value);
    }
    element.append(...children.flat(Infinity).filter(isThere));
    return element;
}

export function show(element, ...children) { element.replaceChildren(...children.flat(Infinity).filter(isThere)); }

export const notice = (text, level = "bad") => h("p", {class: `notice ${level}`, role: "alert"}, text);
export const empty = text => h("p", {class: "empty"}, text);
export const card = (title, ...children) => h("section", {class: "card"}, title && h("h2", {}, title), ...children);

const levels = {
    good: "good",
    serving: "good",
    degraded: "warn",
    stopping: "warn",
    "name taken twice": "warn",
    bad: "bad",
    silent: "bad",
    "no daemon": "bad"
};
export const levelClass = level => levels[level] ?? "none";
const signs = {
    good: "✓",
    warn: "!",
    bad: "✕",
    none: "?"
};
export const badge = level =>
    h("span", {class: `level ${levelClass(level)}`}, `${signs[levelClass(level)]} ${level || "unknown"}`);
