// Lines over time, with marks for what happened.
import {h} from "./dom.js";
import {clock} from "./format.js";

const colour = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

// What happened is told by its letter too, not only by its colour.
export const marks = {
    crash: {sign: "✕", colour: "--bad"},
    overload: {sign: "▲", colour: "--warn"},
    setting: {sign: "◆", colour: "--series-3"},
};

const markLines = {
    id: "marks",
    afterDatasetsDraw(chart) {
        const {ctx, chartArea: area, scales: {x}} = chart;
        ctx.save();
        ctx.font = "12px system-ui, sans-serif";
        ctx.textAlign = "center";
        ctx.lineWidth = 1;
        for (const {time, kind} of chart.marks ?? []) {
            const at = x.getPixelForValue(time);
            if (at < area.left || at > area.right) continue;
            ctx.strokeStyle = ctx.fillStyle = colour(marks[kind].colour);
            ctx.setLineDash([3, 3]);
            ctx.beginPath();
            ctx.moveTo(at, area.top + 12);
            ctx.lineTo(at, area.bottom);
            ctx.stroke();
            ctx.fillText(marks[kind].sign, at, area.top + 9);
        }
        ctx.restore();
    },
};

// Series: {label, dash}; `most` is the top of the axis, `unit(value)` its text, `span` how many ms are shown.
export class Plot {
    constructor({series, span, most, unit, label, low}) {
        this.span = span;
        const canvas = h("canvas", {role: "img", "aria-label": label});
        this.element = h("div", {class: low ? "plot low" : "plot"}, canvas);
        this.chart = new Chart(canvas, {
            type: "line",
            plugins: [markLines],
            data: {datasets: series.map(one => ({label: one.label, borderDash: one.dash ?? [], data: []}))},
            options: {
                animation: false,
                maintainAspectRatio: false,
                parsing: false,
                normalized: true,
                interaction: {mode: "index", intersect: false},
                elements: {point: {radius: 0, hitRadius: 6}, line: {borderWidth: 1.8, tension: 0}},
                scales: {
                    x: {
                        type: "linear",
                        ticks: {
                            maxTicksLimit: 7,
                            maxRotation: 0,
                            callback: value => clock(value).slice(0, this.span > 600000 ? 5 : 8)
                        }
                    },
                    y: {min: 0, suggestedMax: most, ticks: {maxTicksLimit: 5, callback: value => unit(value)}},
                },
                plugins: {
                    legend: {display: series.length > 1, position: "bottom", labels: {boxWidth: 18, boxHeight: 1}},
                    tooltip: {
                        callbacks: {
                            title: items => items.length ? clock(items[0].parsed.x) : "",
                            label: item => `${item.dataset.label}: ${unit(item.parsed.y)}`
                        }
                    },
                },
            },
        });
        this.paint();
    }

    // Takes the theme's colours.
    paint() {
        this.chart.data.datasets.forEach((set, at) => {
            set.borderColor = set.backgroundColor = colour(`--series-${at % 3 + 1}`);
        });
        for (const axis of ["x", "y"]) {
            const {grid, ticks} = this.chart.options.scales[axis];
            ticks.color = colour("--quiet");
            this.chart.options.scales[axis].grid = {
                ...grid,
                color: axis === "x" ? "transparent" : colour("--line"),
                borderColor: colour("--line")
            };
        }
        this.chart.options.plugins.legend.labels.color = colour("--text");
        this.chart.update("none");
    }

    // Of each series a value, null for none.
    add(time, values) {
        values.forEach((value, at) => {
            const {data} = this.chart.data.datasets[at];
            data.push({x: time, y: value});
            while (data.length > 1 && data[0].x < time - this.span) data.shift();
        });
        this.draw(time);
    }

    // All of them anew: rows of a time and the series' values.
    set(rows) {
        this.chart.data.datasets.forEach((dataset, at) => {
            dataset.data = rows.map(([time, ...values]) => ({x: time, y: values[at]}));
        });
        this.draw(Date.now());
    }

    mark(list) {
        this.chart.marks = list;
        this.chart.update("none");
    }

    draw(now) {
        this.chart.options.scales.x.min = now - this.span;
        this.chart.options.scales.x.max = now;
        this.chart.update("none");
    }

    end() { this.chart.destroy(); }
}
