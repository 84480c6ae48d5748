// A table that is sorted by its heads and filtered by a text; rows keep their elements from one answer to the next, so
// that a selection and the focus stay.
import {empty, h} from "./dom.js";

// Columns: {key, title, text(row), value(row), number, cell(row), wide}. `id(row)` tells rows apart.
export class Table {
    constructor({columns, id, sort, falls = true, most = Infinity, none = "nothing"}) {
        Object.assign(this, {columns, id, sort, falls, most, none, rows: [], filter: "", elements: new Map()});
        this.body = h("tbody");
        this.heads = columns.map(column => h("th", {scope: "col", class: this.classOf(column)},
                                     h("button", {type: "button", onclick: () => this.sortBy(column)}, column.title)));
        this.nothing = empty(none);
        this.element = h(
            "div", {class: "scroll"}, h("table", {}, h("thead", {}, h("tr", {}, this.heads)), this.body), this.nothing);
    }

    classOf(column) {
        return [column.number && "number", column.wide && "wide", column.key === "name" && "name"].filter(Boolean).join(
                   " ") ||
            undefined;
    }

    sortBy(column) {
        this.falls = this.sort === column.key ? !this.falls : Boolean(column.number);
        this.sort = column.key;
        this.draw();
    }

    setFilter(text) {
        this.filter = text.toLowerCase();
        this.draw();
    }

    set(rows) {
        this.rows = rows;
        this.draw();
    }

    textOf(column, row) { return column.text ? column.text(row) : String(row[column.key] ?? ""); }

    chosen() {
        const column = this.columns.find(one => one.key === this.sort);
        const value = column.value ?? (row => row[column.key] ?? "");
        const fits = row =>
            this.filter === "" || this.columns.some(one => this.textOf(one, row).toLowerCase().includes(this.filter));
        const sign = this.falls ? -1 : 1;
        const order = (left, right) => {
            const a = value(left), b = value(right);
            return sign * (a < b ? -1 : a > b ? 1 : 0);
        };
        return this.rows.filter(fits).sort(order).slice(0, this.most);
    }

    rowElement(row) {
        const cells = this.columns.map(column => {
            const cell = h("td", {class: this.classOf(column)});
            if (column.cell)
                cell.append(column.cell(row));
            else
                cell.textContent = this.textOf(column, row);
            return cell;
        });
        return {row: h("tr", {}, cells), cells};
    }

    draw() {
        this.heads.forEach((head, at) => {
            if (this.columns[at].key === this.sort)
                head.setAttribute("aria-sort", this.falls ? "descending" : "ascending");
            else
                head.removeAttribute("aria-sort");
        });
        const rows = this.chosen(), kept = new Map();
        for (const row of rows) {
            const id = this.id(row);
            const known = this.elements.get(id);
            if (known) {
                this.columns.forEach((column, at) => {
                    if (!column.cell) {
                        const text = this.textOf(column, row);
                        if (known.cells[at].textContent !== text) known.cells[at].textContent = text;
                    }
                });
            }
            kept.set(id, known ?? this.rowElement(row));
        }
        this.elements = kept;
        const focused = this.body.contains(document.activeElement) ? document.activeElement : null;
        let at = 0;
        for (const {row} of kept.values()) {
            if (this.body.children[at] !== row) this.body.insertBefore(row, this.body.children[at] ?? null);
            ++at;
        }
        while (this.body.children.length > at) this.body.lastChild.remove();
        focused?.focus({preventScroll: true});  // which a row loses that is moved
        this.nothing.hidden = rows.length !== 0;
    }
}

export function filterBox(table, label) {
    return h("input", {
        type: "search",
        placeholder: label,
        "aria-label": label,
        oninput: event => table.setFilter(event.target.value)
    });
}
