// The frame around the views: where one is, whether the manager is reached, and what there is to say.
import {useEffect, useState} from "preact/hooks";
import {CaptureView} from "./capture";
import {Captures} from "./captures";
import {spanText} from "./format";
import {NewCapture} from "./form";
import {LookupView} from "./lookup";
import {Overview} from "./overview";
import {dismiss, signIn, useStore, type Message} from "./store";
import {Button, Title, useTick} from "./ui";

const ULID = /^[0-7][0-9A-HJKMNP-TV-Z]{25}$/;

function useRoute(): string[] {
    const read = () => location.hash.replace(/^#\/?/, "").split("/").filter((part) => part !== "");
    const [route, setRoute] = useState(read);
    useEffect(() => {
        const changed = () => {
            setRoute(read());
            scrollTo(0, 0);
        };
        addEventListener("hashchange", changed);
        return () => removeEventListener("hashchange", changed);
    }, []);
    return route;
}

function View({route}: {route: string[]}) {
    const [place, ids = ""] = route;
    const known = ids.split(",").filter((id) => ULID.test(id));
    if (place === undefined) {
        return <Overview />;
    }
    if (place === "new") {
        return <NewCapture />;
    }
    if (place === "captures" && route.length === 1) {
        return <Captures />;
    }
    if (place === "captures" && known.length === 1) {
        return <CaptureView key={known[0]} id={known[0]!} />;
    }
    if (place === "lookups" && known.length > 0) {
        return <LookupView key={ids} ids={known} />;
    }
    return <><Title text="Not found" /><p class="panel empty">There is nothing here. <a href="#/">Overview</a></p></>;
}

function Connection() {
    const connection = useStore((state) => state.connection);
    const lostSince = useStore((state) => state.lostSince);
    const now = useTick(1000);
    const lost = connection === "lost" && lostSince !== null;
    const text = lost ? `connection lost for ${spanText((now - lostSince) / 1000)}, trying again` : connection === "live" ? "live" : "connecting";
    return (
        <>
            <span class={`connection connection-${lost ? "lost" : connection}`}>{text}</span>
            <span class="hidden" role="status">{lost ? "The connection to the manager is lost. What is shown may be old." : ""}</span>
        </>
    );
}

const PLACES: [string, string, string | undefined][] = [
    ["#/", "Overview", undefined],
    ["#/new", "New capture", "new"],
    ["#/captures", "Captures", "captures"],
];

function Header({place}: {place: string | undefined}) {
    const alarms = useStore((state) => state.alarms.length);
    return (
        <header>
            <a class="skip" href="#main" onClick={(event) => (event.preventDefault(), document.querySelector<HTMLElement>("h1")?.focus())}>Skip to the content</a>
            <span class="name">kestrune</span>
            <nav aria-label="Views">
                {PLACES.map(([href, text, name]) => <a key={href} href={href} aria-current={place === name ? "page" : undefined}>{text}</a>)}
            </nav>
            {alarms > 0 && <a class="alarm-count" href="#/">{alarms} {alarms === 1 ? "alarm" : "alarms"}</a>}
            <Connection />
        </header>
    );
}

function MessageView({message}: {message: Message}) {
    const now = useTick(500);
    return (
        <div class={`message message-${message.kind}`}>
            <span>{message.text}</span>
            {message.undo && <Button kind="primary" action={message.undo} label={`Undo: ${message.text}`}>Undo ({Math.max(0, Math.ceil((message.until - now) / 1000))} s)</Button>}
            {!message.undo && <button type="button" class="quiet" aria-label="Close the message" onClick={() => dismiss(message.id)}>×</button>}
        </div>
    );
}

function Messages() {
    const messages = useStore((state) => state.messages);
    return (
        <div class="messages" role="log" aria-live="polite" aria-label="Messages">
            {messages.map((message) => <MessageView key={message.id} message={message} />)}
        </div>
    );
}

function SignIn() {
    const [value, setValue] = useState("");
    const refused = useStore((state) => state.refused);
    return (
        <main class="sign-in">
            <form class="panel" onSubmit={(event) => (event.preventDefault(), value.trim() && signIn(value.trim()))}>
                <Title text="kestrune" />
                <label class="field">
                    <span>Token</span>
                    <input type="password" value={value} autocomplete="off" onInput={(event) => setValue(event.currentTarget.value)} />
                </label>
                {refused && <p class="loss" role="alert">This token does not open the manager.</p>}
                <p class="hint">On the manager's machine <code>kestrune-manager --url</code> prints a link with a token. It is kept until this tab is closed.</p>
                <button type="submit" class="primary">Open</button>
            </form>
        </main>
    );
}

export function App() {
    const signedIn = useStore((state) => state.signedIn);
    const route = useRoute();
    if (!signedIn) {
        return <SignIn />;
    }
    return (
        <>
            <Header place={route[0]} />
            <main id="main"><View route={route} /></main>
            <Messages />
        </>
    );
}
