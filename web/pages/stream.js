// One event stream for all tabs of this browser. A browser opens six connections to a server and no more: with a
// stream in each, the seventh tab would hang. So the stream lives in a shared worker, and this file is that
// worker; where there is none, a page loads it and has a stream of its own, closed while nobody looks at it.
'use strict';

class EventHub {
  constructor() {
    this.tabs = new Map(); // what sends to a tab -> the device that it shows
    this.last = '';        // number of the last event
    this.source = null;
    this.timer = 0;
  }

  // A tab wants the events of a device behind the number `after`. Others may get some twice, and pass over them.
  join(tell, device, after) {
    this.tabs.set(tell, device);
    this.open(EventHub.earlier(this.last, after));
  }

  leave(tell) {
    if (this.tabs.delete(tell) && this.tabs.size === 0) {
      this.close();
      this.last = '';
    }
  }

  static earlier(a, b) {
    if (!a || !b) return a || b;
    const [runA, numberA] = a.split('-');
    const [runB, numberB] = b.split('-');
    return runA === runB && Number(numberA) < Number(numberB) ? a : b;
  }

  close() {
    clearTimeout(this.timer);
    if (this.source) this.source.close();
    this.source = null;
  }

  open(after) {
    this.close();
    const devices = [...new Set(this.tabs.values())].join(',');
    const source = new EventSource(`/api/events?devices=${devices}&after=${encodeURIComponent(after)}`);
    this.source = source;
    this.last = after;
    source.onopen = () => this.all({ type: 'up' });
    source.onerror = () => {
      this.all({ type: 'down' });
      if (source.readyState === EventSource.CLOSED) this.again();
    };
    source.onmessage = (message) => {
      this.last = message.lastEventId;
      const event = JSON.parse(message.data);
      event.id = message.lastEventId;
      for (const [tell, device] of this.tabs) {
        if (device === event.device) tell({ type: 'event', event });
      }
    };
    source.addEventListener('gap', () => this.all({ type: 'gap' }));
    source.addEventListener('reset', () => this.all({ type: 'reset' }));
  }

  // Refused, as by a server with too many streams: the browser does not try again by itself.
  again() {
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.open(this.last), 2000);
  }

  all(message) {
    for (const tell of this.tabs.keys()) tell(message);
  }
}

if (typeof SharedWorkerGlobalScope !== 'undefined') {
  const hub = new EventHub();
  self.onconnect = (connection) => {
    const port = connection.ports[0];
    const tell = (message) => port.postMessage(message);
    port.onmessage = ({ data }) => {
      if (data.type === 'join') hub.join(tell, data.device, data.after);
      if (data.type === 'leave') hub.leave(tell);
    };
  };
} else {
  // For pages: watchEvents(device, after, tell) -> a function that ends it.
  window.watchEvents = (device, after, tell) => {
    let last = after;
    const remember = (message) => {
      if (message.type === 'event') last = message.event.id;
      tell(message);
    };
    if (typeof SharedWorker !== 'undefined') {
      const { port } = new SharedWorker('/stream.js');
      const join = () => port.postMessage({ type: 'join', device, after: last });
      const leave = () => port.postMessage({ type: 'leave' });
      port.onmessage = ({ data }) => remember(data);
      const back = (event) => event.persisted && join();
      window.addEventListener('pagehide', leave);
      window.addEventListener('pageshow', back);
      join();
      return () => {
        window.removeEventListener('pagehide', leave);
        window.removeEventListener('pageshow', back);
        leave();
        port.close();
      };
    }
    const hub = new EventHub();
    const look = () => (document.hidden ? hub.leave(remember) : hub.join(remember, device, last));
    document.addEventListener('visibilitychange', look);
    look();
    return () => {
      document.removeEventListener('visibilitychange', look);
      hub.leave(remember);
    };
  };
}
