// The event stream: connects again after every end, and stands still while nobody looks, since a
// browser has few connections to spare and the collector few threads.

const RETRY_MS = 1000;

export class Connection {
  #source = null;
  #retry = 0;
  #position = "";
  #handlers;
  #tell;

  // `handlers` by the name of the event; `tell(state, text)` hears how the connection stands.
  constructor(handlers, tell) {
    this.#handlers = handlers;
    this.#tell = tell;
    document.addEventListener("visibilitychange", () => this.#follow());
    // A page that the browser keeps for its "back" must not keep its stream.
    window.addEventListener("pagehide", () => this.#close());
    window.addEventListener("pageshow", (event) => event.persisted && this.#follow());
    this.#follow();
  }

  #follow() {
    if (document.hidden) {
      this.#close();
      this.#tell("idle", "Waiting while hidden");
    } else if (!this.#source) {
      this.#open();
    }
  }

  #close() {
    clearTimeout(this.#retry);
    this.#source?.close();
    this.#source = null;
  }

  #open() {
    this.#close();
    const source = new EventSource("/api/events?after=" + encodeURIComponent(this.#position));
    this.#source = source;
    source.addEventListener("open", () => this.#tell("live", "Live"));
    source.addEventListener("error", () => {
      if (source.readyState !== EventSource.CLOSED) {
        this.#tell("lost", "Not connected, trying again");
        return;
      }
      // There was an answer, but no stream: the browser itself does not try again.
      this.#tell("lost", "Refused, trying again (too many pages open, or not the address that the collector printed?)");
      this.#retry = setTimeout(() => this.#open(), RETRY_MS);
    });
    for (const [name, handle] of Object.entries(this.#handlers)) {
      source.addEventListener(name, (event) => {
        if (event.lastEventId) this.#position = event.lastEventId;
        handle(JSON.parse(event.data));
      });
    }
  }
}
