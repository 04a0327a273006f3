// Small pieces that the views share.
import type {ComponentChildren} from "preact";
import {useEffect, useRef, useState} from "preact/hooks";
import {countText, whenText} from "./format";
import {say} from "./store";
import type {CaptureState} from "./types";

const STATE_WORDS: Record<CaptureState, string> = {
    requested: "waiting",
    recording: "recording",
    searching: "searching",
    finished: "finishing",
    sealed: "ready",
    failed: "failed",
    deleted: "deleted",
};

export function stateWord(state: CaptureState, elsewhere = false): string {
    return state === "finished" && elsewhere ? "finished" : STATE_WORDS[state] ?? state;
}

export function StateMark({state, elsewhere}: {state: CaptureState; elsewhere?: boolean}) {
    return <span class={`state state-${state}`}>{stateWord(state, elsewhere)}</span>;
}

export function runs(state: CaptureState): boolean {
    return state === "requested" || state === "recording" || state === "searching";
}

export function Time({time}: {time: string | null}) {
    return time ? (
        <time dateTime={time} title={time}>
            {whenText(time)}
        </time>
    ) : (
        <span>unknown</span>
    );
}

export function Bar({share, label}: {share: number; label: string}) {
    const percent = Math.max(0, Math.min(100, share * 100));
    return (
        <span class="bar" role="img" aria-label={label}>
            <span class="bar-fill" style={{width: `${percent}%`}} />
        </span>
    );
}

export function Count({value}: {value: number}) {
    return <span class="number">{countText(value)}</span>;
}

// The page's title, which takes the focus when a view is opened, so that a screen reader begins there.
export function Title({text, children}: {text: string; children?: ComponentChildren}) {
    const heading = useRef<HTMLHeadingElement>(null);
    useEffect(() => {
        document.title = text === "kestrune" ? text : `${text} · kestrune`;
        if (document.activeElement === document.body || document.activeElement?.closest("nav")) {
            heading.current?.focus();
        }
    }, [text]);
    return (
        <div class="title">
            <h1 ref={heading} tabIndex={-1}>
                {text}
            </h1>
            {children}
        </div>
    );
}

type DialogProps = {
    title: string;
    onClose: () => void;
    children: ComponentChildren;
};

export function Dialog({title, onClose, children}: DialogProps) {
    const dialog = useRef<HTMLDialogElement>(null);
    useEffect(() => {
        const opener = document.activeElement;
        dialog.current?.showModal();
        return () => (opener instanceof HTMLElement ? opener.focus() : undefined);
    }, []);
    return (
        <dialog ref={dialog} aria-labelledby="dialog-title" onClose={onClose}>
            <h2 id="dialog-title">{title}</h2>
            {children}
        </dialog>
    );
}

// Runs one action at a time; the button says so.
export function Button({action, children, ...more}: {
    action: () => unknown;
    children: ComponentChildren;
    kind?: "primary" | "danger" | "quiet";
    disabled?: boolean;
    label?: string;
    focus?: boolean;
}) {
    const [busy, setBusy] = useState(false);
    const mounted = useRef(true);
    const button = useRef<HTMLButtonElement>(null);
    useEffect(() => {
        mounted.current = true;
        if (more.focus) {
            button.current?.focus();
        }
        return () => {
            mounted.current = false;
        };
    }, []);
    const press = async () => {
        if (busy) {
            return; // not disabled meanwhile: a disabled button would lose the focus
        }
        setBusy(true);
        try {
            await action();
        } finally {
            if (mounted.current) {
                setBusy(false);
            }
        }
    };
    return (
        <button ref={button} type="button" class={more.kind ?? ""} disabled={more.disabled} aria-busy={busy}
            aria-label={more.label} onClick={() => void press()}>
            {children}
        </button>
    );
}

export function Command({text, label}: {text: string; label: string}) {
    const copy = async () => {
        await navigator.clipboard.writeText(text);
        say("Copied.");
    };
    return (
        <div class="command">
            <code tabIndex={0} role="group" aria-label={label}>{text}</code>
            {window.isSecureContext && (
                <Button action={copy} kind="quiet" label={`Copy: ${label}`}>
                    Copy
                </Button>
            )}
        </div>
    );
}

// Draws again every `ms`, for texts that tell how long ago something was.
export function useTick(ms: number): number {
    const [now, setNow] = useState(Date.now());
    useEffect(() => {
        const timer = setInterval(() => setNow(Date.now()), ms);
        return () => clearInterval(timer);
    }, [ms]);
    return now;
}
