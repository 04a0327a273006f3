import {render} from "preact";
import {takeTokenFromUrl, token} from "./api";
import {App} from "./app";
import {signIn, start} from "./store";

takeTokenFromUrl();
addEventListener("hashchange", () => {
    if (location.hash.startsWith("#token=")) {
        takeTokenFromUrl();
        signIn(token());
    }
});
start();
render(<App />, document.getElementById("app")!);
