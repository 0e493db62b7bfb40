// Shows the data of the element "data" (report/viewer/HangData.cpp, ctl/PageData.cpp). Every text of it goes to the page
// as text, never as markup: elements are made one by one.
"use strict";
(() => {
  const data = JSON.parse(document.getElementById("data").textContent);

  const CAUSES = {
    busy: ["Busy", "It kept running: it had more to do than time."],
    starved: ["Starved", "It wanted to run, and the processor was given to others."],
    blocked: ["Blocked", "It waited for another thread, a message or a timer."],
    io: ["Waited for a device", "It waited for a device or a file system."],
    stopped: ["Stopped", "A signal, a tracer or the freezer held it."],
    unknown: ["Unknown", "The report does not hold enough to tell why."],
  };
  const SHAPES = {
    busy: "M8 1 15 15H1z",
    starved: "M8 0 16 8 8 16 0 8z",
    blocked: "M1 1h14v14H1z",
    io: "M8 1a7 7 0 1 0 0 14A7 7 0 1 0 8 1z",
    stopped: "M5 0h6l5 5v6l-5 5H5l-5-5V5z M4 7v2h8V7z",
    unknown: "M8 1a7 7 0 1 0 0 14A7 7 0 1 0 8 1z M8 4a4 4 0 1 1 0 8A4 4 0 1 1 8 4z",
  };
  const STATES = {
    running: "ran", runnable: "waited for a CPU", sleeping: "slept", uninterruptible: "waited uninterruptibly",
    stopped: "was stopped", gone: "was gone", unknown: "not known",
  };

  // --- making elements ---

  function add(parent, children) {
    for (const child of children.flat(Infinity)) {
      if (child !== null && child !== undefined && child !== false) parent.append(child);
    }
    return parent;
  }
  function make(tag, attributes, ...children) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes || {})) {
      if (value === null || value === undefined || value === false) continue;
      if (name === "style") Object.assign(element.style, value);
      else element.setAttribute(name, value === true ? "" : value);
    }
    return add(element, children);
  }
  function draw(tag, attributes, ...children) {
    const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
    for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
    return add(element, children);
  }
  const mark = (cause) => draw("svg", { class: `mark ${cause}`, viewBox: "-1 -1 18 18", "aria-hidden": "true" },
    draw("path", { d: SHAPES[cause], "fill-rule": "evenodd" }));
  const causeOf = (hang) => (Object.hasOwn(CAUSES, hang.cause) ? hang.cause : "unknown");
  const empty = (...words) => make("p", { class: "empty" }, ...words);
  const percent = (share) => `${(100 * share).toFixed(2)}%`;

  // A table whose rows become blocks on a narrow page; the roles stay what they are there.
  function table(caption, columns, rows) {
    const kind = (column) => (column.number ? "number" : column.tight ? "tight" : null);
    return make("table", { role: "table" },
      make("caption", { class: "hidden-text" }, caption),
      make("thead", { role: "rowgroup" }, make("tr", { role: "row" }, columns.map((column) =>
        make("th", { role: "columnheader", scope: "col", class: [kind(column), column.wide ? "wide" : ""].join(" ") },
          column.title)))),
      make("tbody", { role: "rowgroup" }, rows.map((row) => make("tr", { role: "row", class: row.kind },
        row.cells.map((cell, at) => make("td", {
          role: "cell", class: kind(columns[at]) || (columns[at].plain ? "plain" : null), "data-column": columns[at].title,
        }, cell))))));
  }

  // --- figures in words ---

  function duration(ns) {
    const size = Math.abs(ns);
    if (size >= 60e9) return `${(ns / 60e9).toFixed(1)} min`;
    if (size >= 1e9) return `${(ns / 1e9).toFixed(3)} s`;
    if (size >= 1e6) return `${(ns / 1e6).toFixed(1)} ms`;
    return `${(ns / 1e3).toFixed(0)} µs`;
  }
  function size(bytes) {
    const units = ["B", "KiB", "MiB", "GiB", "TiB"];
    let unit = 0;
    let value = bytes;
    for (; Math.abs(value) >= 1024 && unit < units.length - 1; ++unit) value /= 1024;
    return `${unit === 0 || Math.abs(value) >= 100 ? value.toFixed(0) : value.toFixed(1)} ${units[unit]}`;
  }
  const count = (number, one, many) => `${number} ${number === 1 ? one : many || `${one}s`}`;
  const offset = (ns) => (ns === null ? "before what is known" : `${ns < 0 ? "−" : "+"}${(Math.abs(ns) / 1e9).toFixed(3)} s`);
  // Times come as the device's own local time: as numbers they serve to place and to compare only.
  function instant(text) {
    const parts = /^(\d{4})-(\d\d)-(\d\d)[ -](\d\d):?(\d\d):?(\d\d)$/.exec(text || "");
    return parts ? Date.UTC(parts[1], parts[2] - 1, parts[3], parts[4], parts[5], parts[6]) : NaN;
  }
  function instantText(at, span) {
    const text = new Date(at).toISOString();
    if (span > 3 * 86400e3) return text.slice(0, 10);
    return span > 3600e3 ? `${text.slice(5, 10)} ${text.slice(11, 16)}` : text.slice(11, 19);
  }
  function doings(times) {
    const parts = Object.keys(STATES).filter((state) => times[state]).map((state) => `${STATES[state]} ${duration(times[state])}`);
    return parts.length ? parts.join(", ") : "nothing that is known";
  }

  // --- all hangs ---

  const hangs = data.hangs;
  const read = hangs.filter((hang) => !hang.problem);
  const hangsSection = document.getElementById("hangs");
  let lastOpened = null; // the index of the hang that was open, for the focus to come back to

  function legend(items) {
    return make("ul", { class: "legend" }, items);
  }

  function timeLine() {
    const placed = read.filter((hang) => !Number.isNaN(instant(hang.when)));
    if (placed.length < 2) return null;
    const times = placed.map((hang) => instant(hang.when));
    const first = Math.min(...times);
    const span = Math.max(...times) - first || 1000;
    const apps = new Map();
    for (const hang of placed) apps.set(hang.app, [...(apps.get(hang.app) || []), hang]);
    const lanes = [...apps].sort((one, other) => other[1].length - one[1].length);
    const shown = lanes.slice(0, 24);
    const ticks = [0, 0.25, 0.5, 0.75, 1];
    return make("div", { class: "card", role: "img", "aria-label":
        `Time line: ${count(placed.length, "hang")} of ${count(lanes.length, "app")}, from ${instantText(first, Infinity)} ` +
        "on. The list below has the same hangs." },
      make("div", { class: "lanes" },
        shown.map(([app, ofApp]) => [
          make("div", { class: "lane-name", title: app }, make("span", {}, app), make("span", { class: "quiet" }, String(ofApp.length))),
          make("div", { class: "lane" }, make("div", { class: "lane-inset" }, ofApp.map((hang) =>
            make("a", {
              href: `#hang-${hangs.indexOf(hang)}`, tabindex: "-1", "aria-hidden": "true",
              title: `${hang.when}: ${CAUSES[causeOf(hang)][0]}, ${duration(hang.duration_ns)}`,
              style: { left: percent((instant(hang.when) - first) / span) },
            }, mark(causeOf(hang)))))),
        ]),
        make("div", { class: "corner" }),
        make("div", { class: "axis" }, make("div", { class: "lane-inset" }, ticks.map((tick) =>
          make("span", { style: { left: percent(tick) } }, instantText(first + tick * span, span)))))),
      lanes.length > shown.length &&
        make("p", { class: "quiet small" }, `${count(lanes.length - shown.length, "more app")} with fewer hangs in the list.`),
      legend(Object.keys(CAUSES).filter((cause) => placed.some((hang) => causeOf(hang) === cause))
        .map((cause) => make("li", {}, mark(cause), CAUSES[cause][0]))));
  }

  function listItem(hang, index) {
    if (hang.problem) {
      return make("li", {}, make("div", { class: "unread" }, make("span", {}, "Not read"),
        make("span", {}, `${hang.file}: ${hang.problem}`)));
    }
    return make("li", {}, make("a", { href: `#hang-${index}`, tabindex: "-1" },
      make("span", { class: "why" }, mark(causeOf(hang)), CAUSES[causeOf(hang)][0]),
      make("span", { class: "app" }, hang.app || "an app without a name",
        !hang.complete && make("span", { class: "flag" }, " (incomplete file)")),
      make("span", { class: "long number" }, duration(hang.duration_ns)),
      make("span", { class: "when number" }, hang.when)));
  }

  // Up and down, Home and End move through the list; one of its links at a time can be reached with Tab.
  function walkable(list, selector, move) {
    const items = () => [...list.querySelectorAll(selector)].filter((item) => !item.closest("[hidden]"));
    const choose = (item) => {
      for (const other of list.querySelectorAll(selector)) other.tabIndex = other === item ? 0 : -1;
    };
    list.addEventListener("keydown", (event) => {
      const next = move(event.key, items(), document.activeElement);
      if (!next) return;
      event.preventDefault();
      choose(next);
      next.focus();
    });
    list.addEventListener("focusin", (event) => { if (event.target.matches(selector)) choose(event.target); });
    const ready = () => { if (items().length && !items().some((item) => item.tabIndex === 0)) choose(items()[0]); };
    ready();
    return ready;
  }
  function moveInList(key, items, active) {
    const at = items.indexOf(active);
    if (key === "ArrowDown") return items[Math.min(at + 1, items.length - 1)];
    if (key === "ArrowUp") return items[Math.max(at - 1, 0)];
    if (key === "Home") return items[0];
    if (key === "End") return items[items.length - 1];
    return null;
  }

  function showOverview() {
    const byCause = Object.keys(CAUSES).map((cause) => [cause, read.filter((hang) => causeOf(hang) === cause).length])
      .filter(([, number]) => number > 0).map(([cause, number]) => `${number} ${CAUSES[cause][0].toLowerCase()}`);
    const longest = read.reduce((most, hang) => (!most || hang.duration_ns > most.duration_ns ? hang : most), null);
    const list = make("ul", { class: "list", "aria-label": "Hangs, the newest first" }, hangs.map(listItem));
    const found = make("p", { class: "quiet small", role: "status" });
    const search = make("input", { type: "search", id: "filter", autocomplete: "off", spellcheck: "false" });
    hangsSection.replaceChildren(
      make("h1", { id: "hangs-title", tabindex: "-1" }, data.folder ? count(read.length, "hang") : "One hang"),
      make("p", { class: "quiet" }, `Of ${data.source}, as it was on ${data.made}.`));
    if (read.length === 0) add(hangsSection, [empty("None of the files could be read as a hang report; why is told with each.")]);
    else {
      add(hangsSection, [make("p", {}, `${byCause.join(", ")}. The longest took ${duration(longest.duration_ns)}, of `,
        make("strong", {}, longest.app || "an app without a name"), "."), timeLine()]);
    }
    add(hangsSection, [hangs.length > 8 && make("div", { class: "tools" }, make("label", { for: "filter" }, "Only with"), search, found),
      hangs.length <= 8 && make("div", { class: "tools" }), list,
      make("p", { class: "quiet small only-keys" }, make("kbd", {}, "↑"), " ", make("kbd", {}, "↓"), " move, ",
        make("kbd", {}, "Enter"), " opens, ", make("kbd", {}, "Esc"), " comes back.")]);
    const ready = walkable(list, "a", moveInList);
    search.addEventListener("input", () => {
      const wanted = search.value.toLowerCase();
      let left = 0;
      hangs.forEach((hang, at) => {
        const text = `${hang.app || ""} ${hang.file} ${hang.when || ""} ${hang.problem ? "" : CAUSES[causeOf(hang)][0]}`;
        const matches = text.toLowerCase().includes(wanted);
        list.children[at].hidden = !matches;
        if (matches) ++left;
      });
      found.textContent = wanted ? `${left} of ${hangs.length}` : "";
      ready();
    });
  }

  // --- one hang ---

  const swatch = (state) => make("span", { class: "swatch", "aria-hidden": "true" }, make("i", { class: `state ${state}` }));

  function sharesText(thread, length) {
    const parts = Object.keys(STATES).filter((state) => thread.times[state])
      .sort((one, other) => thread.times[other] - thread.times[one])
      .map((state) => {
        const share = (100 * thread.times[state]) / length;
        return `${STATES[state]} ${share < 0.05 ? "< 0.1" : share.toFixed(1)} %`;
      });
    return parts.join(", ") || "nothing is known";
  }
  function threadRow(thread, length, note) {
    const slices = thread.strip.reduce((sum, run) => sum + run[1], 0) || 1;
    let at = 0;
    const text = sharesText(thread, length);
    return make("div", { class: note ? "thread other" : "thread" },
      make("div", { class: "thread-head" }, make("span", {}, make("strong", {}, thread.label), note && make("span", { class: "quiet" }, ` ${note}`)),
        make("span", { class: "quiet small" }, text)),
      make("div", { class: "strip", role: "img", "aria-label": `${thread.label}: ${text}` }, thread.strip.map(([state, run]) => {
        const piece = make("i", { class: `state ${state}`, title: STATES[state], style: { left: percent(at / slices), width: percent(run / slices) } });
        at += run;
        return piece;
      })));
  }
  function threads(hang, detail) {
    const length = hang.duration_ns;
    const all = [detail.hung, ...detail.others];
    const seen = Object.keys(STATES).filter((state) => all.some((thread) => thread.times[state]));
    const rest = [];
    if (detail.fellows_left_out) rest.push(`${count(detail.fellows_left_out, "more thread")} of the process ran less.`);
    if (detail.fellows_at_rest) rest.push(`${count(detail.fellows_at_rest, "more thread")} of the process did not run during the hang.`);
    const noteOf = (thread) => [thread.fellow ? "of the same process" : "of another process", thread.waker && "ended a wait"]
      .filter(Boolean).join(", ");
    return [
      make("h3", {}, "What the threads did"),
      make("p", { class: "quiet" }, "From the hang's begin to its end; each column is what the thread did for most of that time."),
      threadRow({ ...detail.hung, label: `${detail.hung.label} — hung` }, length, ""),
      detail.others.map((thread) => threadRow(thread, length, noteOf(thread))),
      make("div", { class: "axis" }, [0, 0.5, 1].map((tick) => make("span", { style: { left: percent(tick) } }, tick ? duration(tick * length) : "0 s"))),
      legend(seen.map((state) => make("li", {}, swatch(state), STATES[state]))),
      rest.length > 0 && make("p", { class: "quiet small" }, rest.join(" ")),
    ];
  }

  function lacks(hang, detail) {
    const told = detail.completeness;
    const lines = [];
    if (told.incomplete) lines.push(`The file is incomplete: ${told.incomplete}.`);
    if (told.recorder === "none") {
      lines.push("The flight recorder was off, so nothing is known of who ran and who waited. “quorvixctl recorder on” switches it on.");
    } else if (told.covered_ns < hang.duration_ns) {
      const share = ((100 * told.covered_ns) / hang.duration_ns).toFixed(1);
      lines.push(`The recorder holds ${share} % of the hang` +
        (told.covered_from_ns > 0 ? `, from ${offset(told.covered_from_ns)} on.` : "."));
    }
    for (const [cpu, number] of told.lost) {
      lines.push(number < 0 ? `On ${cpu} events were lost, how many is not known.` : `On ${cpu} ${count(number, "event")} were lost.`);
    }
    for (const [source, why] of told.missing) lines.push(`Missing: ${source}: ${why}.`);
    if (lines.length === 0) {
      return make("p", { class: "quiet" }, "The report is complete: the file is whole, the recorder holds all of the hang, and no event was lost.");
    }
    return make("div", { class: "lacks" }, make("h4", {}, "What the report lacks"), make("ul", {}, lines.map((line) => make("li", {}, line))));
  }

  function waits(detail) {
    if (detail.waits.length === 0) return [make("h3", {}, "Longest waits"), empty("No wait is known.")];
    const columns = [{ title: "How long", number: true }, { title: "Kind", tight: true }, { title: "From", number: true }, { title: "How it ended" }];
    return [make("h3", {}, "Longest waits"), table("The longest waits of the hung thread", columns, detail.waits.map((wait) => ({
      cells: [duration(wait.in_hang_ns), STATES[wait.activity], offset(wait.begin_ns),
        !wait.ended ? "It had not ended when the report was made."
          : wait.activity === "runnable" ? "Then it ran."
            : !wait.by ? "By whom is not known." : `By ${wait.by}${wait.by_did ? `, which until then ${doings(wait.by_did)}` : ""}.`],
    })))];
  }

  function users(detail) {
    if (detail.users.length === 0) return [make("h3", {}, "Who ran meanwhile"), empty("Nothing is known of who ran.")];
    const most = Math.max(...detail.users.map((user) => user.ran_ns), 1);
    return [make("h3", {}, "Who ran meanwhile"),
      table("Threads that ran most during the hang",
        [{ title: "Thread" }, { title: "Ran", number: true }, { title: "", plain: true, wide: true }],
        detail.users.map((user) => ({
          kind: user.hung ? "hung" : null,
          cells: [user.hung ? `${user.label} — hung` : user.label, duration(user.ran_ns),
            make("div", { class: "bar" }, make("i", { style: { left: "0", width: percent(user.ran_ns / most) } }))],
        }))),
      make("p", { class: "quiet small" }, `${count(detail.cpus, "CPU")} with events; idle for ${duration(detail.idle_ns)} in all.`)];
  }

  // All stacks as one tree: a frame is as wide as the number of threads that are in it, the outermost at the bottom.
  function stackTree(detail) {
    const root = { name: "all threads", where: "", kernel: 0, threads: [], children: new Map(), depth: 0, parent: null };
    for (const stack of detail.stacks) {
      if (stack.frames.length === 0) continue;
      let node = root;
      node.threads.push(stack.thread);
      for (const index of [...stack.frames].reverse()) {
        if (!node.children.has(index)) {
          const [name, where, kernel] = detail.frames[index];
          node.children.set(index, { name, where, kernel, threads: [], children: new Map(), depth: node.depth + 1, parent: node });
        }
        node = node.children.get(index);
        node.threads.push(stack.thread);
      }
    }
    return root;
  }
  function flame(detail, hungLabel) {
    const root = stackTree(detail);
    const rowRem = 1.55;
    const mostFrames = 4000;
    const box = make("div", { class: "flame", role: "group", "aria-label": "Stacks as a flame graph" });
    const told = make("p", { class: "flame-told small quiet", role: "status" });
    let chosen = root;
    let shown = [];

    const sorted = (node) => [...node.children.values()].sort((one, other) =>
      (other.threads.includes(hungLabel) - one.threads.includes(hungLabel)) || other.threads.length - one.threads.length);
    function tell(node) {
      told.replaceChildren(make("span", { class: "code" }, node.name), node.where ? ` — ${node.where}` : "", ` — ${count(node.threads.length, "thread")}: `,
        node.threads.slice(0, 8).join(", "), node.threads.length > 8 ? " and others" : "");
    }
    function place(node, left, width) {
      if (shown.length >= mostFrames) return;
      shown.push({ node, left, width });
      let at = left;
      for (const child of sorted(node)) {
        const share = (width * child.threads.length) / node.threads.length;
        place(child, at, share);
        at += share;
      }
    }
    function show(focused) {
      shown = [];
      for (let node = chosen.parent; node; node = node.parent) shown.push({ node, left: 0, width: 1 });
      place(chosen, 0, 1);
      const deepest = Math.max(...shown.map((frame) => frame.node.depth));
      box.style.height = `${(deepest + 1) * rowRem}rem`;
      box.replaceChildren(...shown.map((frame) => {
        const node = frame.node;
        frame.button = make("button", {
          type: "button", tabindex: node === focused ? "0" : "-1",
          class: `${node.threads.includes(hungLabel) ? "hung" : ""} ${node.kernel ? "kernel" : ""}`,
          "aria-label": `${node.name}${node.where ? `, ${node.where}` : ""}, ${count(node.threads.length, "thread")}`,
          style: { left: percent(frame.left), width: percent(frame.width), bottom: `${node.depth * rowRem}rem` },
        }, node.name);
        const choose = () => { chosen = node; show(node); frameOf(node).focus(); };
        frame.button.addEventListener("click", choose);
        frame.button.addEventListener("focus", () => tell(node));
        frame.button.addEventListener("pointerenter", () => tell(node));
        return frame.button;
      }));
    }
    const frameOf = (node) => shown.find((frame) => frame.node === node).button;
    walkable(box, "button", (key, items, active) => {
      const at = shown.find((frame) => frame.button === active);
      if (!at) return null;
      const level = shown.filter((frame) => frame.node.depth === at.node.depth).sort((one, other) => one.left - other.left);
      if (key === "ArrowUp") return sorted(at.node).length ? frameOf(sorted(at.node)[0]) : null;
      if (key === "ArrowDown") return at.node.parent ? frameOf(at.node.parent) : null;
      if (key === "ArrowRight") return (level[level.indexOf(at) + 1] || at).button;
      if (key === "ArrowLeft") return (level[level.indexOf(at) - 1] || at).button;
      return null;
    });
    // The first Escape shows all again, the next one leaves the hang.
    box.addEventListener("keydown", (event) => {
      if (event.key !== "Escape" || chosen === root) return;
      event.stopPropagation();
      const from = chosen;
      chosen = root;
      show(from);
      frameOf(from).focus();
    });
    show(root);
    told.textContent = "Choose a frame to see its whole name; Enter or a click widens it, Esc shows all again.";
    return [box, told];
  }
  function stacks(detail) {
    const title = make("h3", {}, "Stacks");
    const hung = detail.stacks[0];
    const problem = (hung && hung.problem) || detail.stack_problem;
    if (!hung || detail.stacks.every((stack) => stack.frames.length === 0)) {
      return [title, empty(problem ? `There is no stack: ${problem}.` : "The file has no stack.")];
    }
    const without = detail.stacks.filter((stack) => stack.frames.length === 0).length;
    return [title,
      make("p", { class: "quiet" }, `One look at ${count(detail.stacks.length - without, "thread")} when the report was made. A frame is as wide as ` +
        "the threads that are in it are many; what called is below what was called. Frames with a thick edge are the hung thread’s, slanted ones the kernel’s."),
      flame(detail, hung.thread),
      problem && make("p", { class: "quiet small" }, `Of the hung thread: ${problem}.`),
      (without > 0 || detail.stacks_left_out > 0) && make("p", { class: "quiet small" },
        [without && `${count(without, "thread")} without a stack.`, detail.stacks_left_out && `${count(detail.stacks_left_out, "more stack")} in the file.`]
          .filter(Boolean).join(" ")),
      make("details", {}, make("summary", {}, "The hung thread’s stack as a list"),
        make("ol", { class: "stack code", start: "0" }, hung.frames.map((index) => make("li", {}, detail.frames[index][0],
          make("span", { class: "quiet" }, ` ${detail.frames[index][1]}`))))),
    ];
  }

  function showHang(index) {
    const hang = hangs[index];
    const cause = causeOf(hang);
    const detail = hang.detail;
    const title = make("h1", { id: "hangs-title", tabindex: "-1" }, `${hang.app || "An app without a name"} hung for ${duration(hang.duration_ns)}`);
    const fact = (name, value) => (value ? [make("dt", {}, name), make("dd", {}, value)] : []);
    const when = hang.when_is_of_file ? `${hang.when}, when the file was written; the hang’s own time is not known` : hang.when;
    hangsSection.replaceChildren();
    add(hangsSection, [
      hangs.length > 1 && make("a", { class: "back", href: "#hangs" }, "← All hangs", make("span", { class: "only-keys" }, " ", make("kbd", {}, "Esc"))),
      title,
      make("div", { class: "card verdict" }, mark(cause), make("div", {},
        make("h2", {}, CAUSES[cause][0]), make("p", {}, CAUSES[cause][1]),
        detail && make("ul", {}, detail.evidence.map((line) => make("li", {}, line))))),
    ]);
    if (!detail) {
      add(hangsSection, [empty("Only the newest reports of the folder are told in full on this page. “quorvixctl report html” " +
        `on ${hang.file} makes one of this report.`)]);
    } else {
      add(hangsSection, [
        lacks(hang, detail),
        make("dl", { class: "facts" }, fact("When", when), fact("Thread", detail.thread), fact("Reason", detail.reason),
          fact("Reported by", detail.service), fact("Program", detail.program), fact("File", `${hang.file}, ${size(hang.bytes)}`)),
        threads(hang, detail), stacks(detail), waits(detail), users(detail),
      ]);
    }
    return title;
  }

  // --- launches ---

  function showLaunches() {
    const section = document.getElementById("launches");
    add(section, [make("h2", { id: "launches-title" }, "Launches")]);
    const launches = data.launches;
    if (launches.problem) return add(section, [empty(`No launches are shown: ${launches.problem}.`)]);
    const most = Math.max(...launches.rows.map((row) => row.max_ms), 1);
    const ms = (value) => duration(value * 1e6);
    add(section, [
      make("p", { class: "quiet" }, "How long apps took to launch or to come back. The bar goes from the shortest to the longest; " +
        "the marks are the median, 90 and 99 of 100."),
      table("Launches by app",
        [{ title: "App" }, { title: "Kind" }, { title: "Count", number: true }, { title: "Median", number: true }, { title: "90 of 100", number: true },
          { title: "99 of 100", number: true }, { title: "Longest", number: true }, { title: "", plain: true, wide: true }],
        launches.rows.map((row) => ({
          cells: [row.app, row.type, String(row.count), ms(row.p50_ms), ms(row.p90_ms), ms(row.p99_ms), ms(row.max_ms),
            make("div", { class: "bar", role: "img", "aria-label": `${ms(row.min_ms)} to ${ms(row.max_ms)}, median ${ms(row.p50_ms)}` },
              make("i", { style: { left: percent(row.min_ms / most), width: percent((row.max_ms - row.min_ms) / most) } }),
              [row.p50_ms, row.p90_ms, row.p99_ms].map((value) => make("b", { style: { left: percent(value / most) } })))],
        }))),
    ]);
  }

  // --- memory ---

  function line(values, label, isSpark) {
    const known = values.filter((value) => value !== null);
    const most = Math.max(...known, 1);
    const least = isSpark ? Math.min(...known) : 0;
    const x = (at) => (values.length > 1 ? (1000 * at) / (values.length - 1) : 500);
    const y = (value) => 100 - (100 * (value - least)) / (most - least || 1);
    const points = values.map((value, at) => (value === null ? null : `${x(at)},${y(value)}`)).filter(Boolean);
    return draw("svg", { class: isSpark ? "line spark" : "line", viewBox: "0 0 1000 100", preserveAspectRatio: "none", role: "img", "aria-label": label },
      !isSpark && draw("polygon", { points: `${x(0)},100 ${points.join(" ")} ${x(values.length - 1)},100` }),
      draw("polyline", { points: points.join(" ") }));
  }
  function chart(title, values, times) {
    const known = values.filter((value) => value !== null);
    if (known.length === 0) return null;
    const last = known[known.length - 1];
    return make("figure", { class: "card" },
      make("figcaption", {}, make("strong", {}, title), make("span", { class: "number" }, size(last))),
      line(values, `${title}: from ${size(known[0])} to ${size(last)}, at most ${size(Math.max(...known))}`, false),
      make("div", { class: "chart-axis" }, make("span", {}, times[0]), make("span", {}, times[1])));
  }
  function grew(rows, title) {
    if (rows.length === 0) return empty("Nothing grew.");
    const number = (row) => (row.count_before === row.count_after ? String(row.count_after) : `${row.count_before} → ${row.count_after}`);
    const isCounted = rows.some((row) => row.count_before !== 1 || row.count_after !== 1);
    const columns = [{ title: "Name" }, isCounted && { title: "How many", number: true }, { title: "Before", number: true }, { title: "After", number: true },
      { title: "Grew by", number: true }, { title: "", plain: true, wide: true }].filter(Boolean);
    return table(title, columns, rows.map((row) => ({
      cells: [row.name, isCounted && number(row), size(row.before), size(row.after), `+${size(row.after - row.before)}`,
        line(row.series, `${row.name}: from ${size(row.before)} to ${size(row.after)}`, true)].filter((cell) => cell !== false),
    })));
  }
  function showMemory() {
    const section = document.getElementById("memory");
    add(section, [make("h2", { id: "memory-title" }, "Memory")]);
    const memory = data.memory;
    if (memory.problem) return add(section, [empty(`No memory is shown: ${memory.problem}.`)]);
    const instants = memory.times.map(instant);
    const span = instants[instants.length - 1] - instants[0];
    const axis = [memory.times[0], memory.times[memory.times.length - 1]].map((text) => {
      const at = instant(text);
      return Number.isNaN(at) ? text : instantText(at, Math.min(span, 3 * 86400e3));
    });
    const remarks = [memory.left_out && `${count(memory.left_out, "older snapshot")} left out.`,
      memory.unread.length && `${count(memory.unread.length, "snapshot")} could not be read.`].filter(Boolean);
    add(section, [
      make("p", { class: "quiet" }, `${count(memory.times.length, "snapshot")} of the whole device. ${remarks.join(" ")}`),
      make("div", { class: "charts" }, chart("All processes", memory.processes, axis), chart("Kernel zones", memory.zones, axis),
        chart("Kernel wired", memory.wired, axis), chart("Free", memory.free, axis)),
    ]);
    if (memory.times.length < 2) return add(section, [empty("What grew can be told once there are two snapshots.")]);
    const part = (title, rows) => make("details", { class: "part" }, make("summary", {}, `${title} (${rows.length})`), grew(rows, title));
    return add(section, [make("h3", {}, "Processes that grew"), grew(memory.grown.processes, "Processes that grew"),
      part("Kernel zones that grew", memory.grown.zones), part("Wired memory that grew", memory.grown.wired)]);
  }

  // --- the way around ---

  function indexInAddress() {
    const found = /^#hang-(\d+)$/.exec(location.hash);
    const index = found ? Number(found[1]) : NaN;
    return index < hangs.length && !hangs[index].problem ? index : null;
  }
  function route() {
    const index = hangs.length === 1 && read.length === 1 ? 0 : indexInAddress();
    if (index !== null) {
      if (lastOpened === index) return; // another part of the page was gone to
      lastOpened = index;
      const title = showHang(index);
      document.title = title.textContent;
      if (hangs.length > 1) {
        scrollTo({ top: 0, behavior: "instant" });
        title.focus({ preventScroll: true });
      }
      return;
    }
    if (hangsSection.firstChild && lastOpened === null) return;
    if (lastOpened !== null && location.hash !== "#hangs" && location.hash !== "") return;
    const before = lastOpened;
    lastOpened = null;
    showOverview();
    document.title = "Hang reports";
    if (before !== null) hangsSection.querySelector(`a[href="#hang-${before}"]:not([aria-hidden])`).focus();
  }
  addEventListener("hashchange", route);
  document.addEventListener("keydown", (event) => {
    if (event.key === "Escape" && lastOpened !== null && hangs.length > 1) location.hash = "#hangs";
  });
  showLaunches();
  showMemory();
  add(document.getElementById("about"), [make("p", {}, `Made by ${data.tool} on ${data.made}; all times are the device’s own (${data.zone}). ` +
    "The page is whole in itself: it loads nothing and sends nothing.")]);
  route();
})();
