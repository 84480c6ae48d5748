// Figures and times as people read them.

export function bytes(count) {
    const units = ["B", "KiB", "MiB", "GiB", "TiB"];
    let unit = 0, value = Number(count);
    while (value >= 1024 && unit < units.length - 1) {
        value /= 1024;
        ++unit;
    }
    return `${unit === 0 ? value : value.toFixed(1)} ${units[unit]}`;
}

export const permille = share => `${(Number(share) / 10).toFixed(1)} %`;

export function duration(us) {
    const seconds = Number(us) / 1e6;
    if (seconds < 1e-3) return `${Math.round(seconds * 1e6)} µs`;
    if (seconds < 1) return `${(seconds * 1e3).toFixed(1)} ms`;
    if (seconds < 60) return `${seconds.toFixed(1)} s`;
    const parts = [[86400, "d"], [3600, "h"], [60, "min"], [1, "s"]];
    const first = parts.findIndex(([size]) => seconds >= size);
    return parts.slice(first, first + 2)
        .map(
            ([size, unit], at) => `${Math.floor(at === 0 ? seconds / size : seconds % parts[first][0] / size)} ${unit}`)
        .join(" ");
}

const two = number => String(number).padStart(2, "0");

export function clock(time) {
    const date = new Date(time);
    return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
}

// With the date where it is not today's.
export function moment(time) {
    if (time === null || time === undefined || time === "") return "–";
    const date = new Date(time);
    if (Number.isNaN(date.getTime())) return String(time);
    const day = `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
    return date.toDateString() === new Date().toDateString() ? clock(date) : `${day} ${clock(date)}`;
}
