// Plots: a line small enough for a row of figures, and uPlot with this page's colours.
import {useEffect, useRef, useState} from "preact/hooks";
import uPlot from "uplot";
import {clockText, dayText, shortText} from "./format";

export type Points = [number[], ...(number | null)[][]]; // seconds since 1970, then one column a series

// Of a probe's last minutes. Gaps stay gaps.
export function Sparkline({values, label}: {values: (number | null)[]; label: string}) {
    const width = 120;
    const height = 26;
    const most = Math.max(1e-9, ...values.map((value) => value ?? 0));
    const step = width / Math.max(1, values.length - 1);
    let path = "";
    let pen = "M";
    values.forEach((value, index) => {
        if (value === null) {
            pen = "M";
            return;
        }
        path += `${pen}${(index * step).toFixed(1)} ${(height - 2 - (value / most) * (height - 4)).toFixed(1)}`;
        pen = "L";
    });
    return (
        <svg class="sparkline" viewBox={`0 0 ${width} ${height}`} preserveAspectRatio="none" role="img" aria-label={label}>
            <path d={path} />
        </svg>
    );
}

export function color(name: string): string {
    return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}

// Grows when the system changes between light and dark: plots are painted with colours, not styled.
export function useScheme(): number {
    const [count, setCount] = useState(0);
    useEffect(() => {
        const dark = matchMedia("(prefers-color-scheme: dark)");
        const changed = () => setCount((old) => old + 1);
        dark.addEventListener("change", changed);
        return () => dark.removeEventListener("change", changed);
    }, []);
    return count;
}

const FONT = '12px "Segoe UI", Roboto, "Noto Sans", "Liberation Sans", Arial, sans-serif';

// Times as the operator's clock, with as many places as the marks are apart.
function timeMarks(_: uPlot, marks: number[], __: number, ___: number, step: number): string[] {
    const places = step >= 1 ? 0 : Math.min(9, Math.ceil(-Math.log10(step) - 1e-9));
    let day = "";
    return marks.map((mark) => {
        const today = dayText(mark * 1000);
        const clock = clockText(mark * 1000, places);
        const text = step >= 60 ? clock.slice(0, 5) : clock;
        const newDay = day !== "" && day !== today;
        day = today;
        return newDay ? `${text}\n${today}` : text;
    });
}

export function axes(values: (value: number) => string, unit: string, size = 56): uPlot.Axis[] {
    const common = {
        stroke: color("dim"),
        font: FONT,
        labelFont: FONT,
        grid: {stroke: color("line"), width: 1},
        ticks: {stroke: color("line"), width: 1, size: 4},
    };
    return [
        {...common, values: timeMarks, space: 90, size: 30, grid: {show: false}},
        {...common, values: (_, marks) => marks.map(values), size, label: unit, labelSize: 18, labelGap: 0, space: 28},
    ];
}

export function shortMarks(value: number): string {
    return shortText(value);
}

type PlotProps = {
    options: () => Omit<uPlot.Options, "width" | "height">;
    points: Points;
    height: number;
    label: string;
    remake: string | number; // another value: the options are another's
    onMake?: (plot: uPlot | null) => void;
    onKeyDown?: (event: KeyboardEvent) => void;
    focusable?: boolean;
};

// As wide as its place. Data can change without being made anew.
export function Plot(props: PlotProps) {
    const place = useRef<HTMLDivElement>(null);
    const plot = useRef<uPlot | null>(null);
    const scheme = useScheme();
    useEffect(() => {
        const host = place.current!;
        // On the right half a time mark has room.
        const made = new uPlot({padding: [null, 26, null, null], ...props.options(), width: host.clientWidth, height: props.height}, props.points, host);
        plot.current = made;
        props.onMake?.(made);
        const observer = new ResizeObserver(() => made.setSize({width: host.clientWidth, height: props.height}));
        observer.observe(host);
        return () => {
            observer.disconnect();
            props.onMake?.(null);
            made.destroy();
            plot.current = null;
        };
    }, [props.remake, scheme]);
    useEffect(() => {
        const made = plot.current;
        if (made && made.data !== props.points) {
            made.setData(props.points, true);
        }
    }, [props.points]);
    return (
        <div ref={place} class="plot" role="img" aria-label={props.label} style={{minHeight: `${props.height}px`}}
            tabIndex={props.focusable ? 0 : undefined} onKeyDown={props.onKeyDown} />
    );
}
