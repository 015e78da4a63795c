// SPDX-License-Identifier: MIT
// The rig console: one tile per camera, grouped by host, with its live
// preview and main settings; one shoot button for the whole rig and the
// last pictures' thumbnails. It speaks MQTT to the broker that serves it,
// over the broker's websocket listener, and needs no other server.

import mqtt from "mqtt";

const params = new URLSearchParams(location.search);
const rig = params.get("rig") || "rig";
const base = `qkcam/${rig}/`;
const LEASE = { fps: Number(params.get("fps") || 2), width: Number(params.get("width") || 320), seconds: 10 };
const SETTINGS = ["Shooting Mode", "ISO Speed", "WB Mode", "Exposure Compensation"];
const GONE_AFTER_MS = 1500; // a camera that sends no frame for this long while leased is flagged

const $ = (id) => document.getElementById(id);
const hosts = new Map(); // host -> { section, tiles: Map(serial -> tile), state }
const pending = new Map(); // request id -> handler(host, result)
let requestNumber = 0;

$("rig").textContent = rig;

const client = mqtt.connect(`${location.protocol === "https:" ? "wss" : "ws"}://${location.host}`, {
  username: params.get("user") || undefined,
  password: params.get("password") || undefined,
  protocolVersion: 4,
  reconnectPeriod: 2000,
});

client.on("connect", () => {
  $("link").textContent = "connected";
  $("link").classList.add("up");
  $("shoot").disabled = false;
  for (const t of ["+/status", "+/cameras", "+/preview/+", "+/thumb/+/+", "+/result/+", "+/event"])
    client.subscribe(base + t, { qos: t.startsWith("+/preview") ? 0 : 1 });
  renewLease();
});
client.on("close", () => {
  $("link").textContent = "broker unreachable";
  $("link").classList.remove("up");
  $("shoot").disabled = true;
});

// Agents send frames only while some page renews this lease.
function renewLease() {
  if (client.connected) client.publish(base + "preview/lease", JSON.stringify(LEASE));
}
setInterval(renewLease, 3000);

function command(topic, body, handler, fireAtDigits) {
  const id = `web${Date.now().toString(36)}${(requestNumber++).toString(36)}`;
  pending.set(id, handler);
  // fire_at exceeds a double's exact range: it goes into the text as digits.
  const text = JSON.stringify({ id, ...body }).replace('"@FIRE_AT@"', fireAtDigits || "0");
  client.publish(base + topic, text, { qos: 1 });
  return id;
}

function host(name) {
  if (!hosts.has(name)) {
    const section = document.createElement("section");
    section.className = "host";
    section.innerHTML = `<h2><span class="name"></span><span class="state"></span></h2><div class="tiles"></div>`;
    section.querySelector(".name").textContent = name;
    const sections = [...hosts.keys(), name].sort();
    $("hosts").insertBefore(section, hosts.get(sections[sections.indexOf(name) + 1])?.section || null);
    hosts.set(name, { section, tiles: new Map(), state: "" });
  }
  return hosts.get(name);
}

function tile(hostName, serial) {
  const h = host(hostName);
  if (!h.tiles.has(serial)) {
    const el = document.createElement("article");
    el.className = "tile gone";
    el.dataset.serial = serial;
    el.dataset.host = hostName;
    el.dataset.frames = "0";
    el.innerHTML = `<img class="preview" alt=""><div class="reason"></div>
      <div class="caption"><b class="serial"></b><span class="model"></span></div>
      <div class="facts"><span class="battery"></span> <span class="zoom"></span></div>
      <div class="settings"></div>`;
    el.querySelector(".serial").textContent = serial;
    el.querySelector(".reason").textContent = "waiting for the camera";
    const tiles = [...h.tiles.keys(), serial].sort();
    h.section.querySelector(".tiles").insertBefore(el, h.tiles.get(tiles[tiles.indexOf(serial) + 1]) || null);
    h.tiles.set(serial, el);
  }
  return h.tiles.get(serial);
}

function setGone(el, reason) {
  el.classList.toggle("gone", Boolean(reason));
  el.querySelector(".reason").textContent = reason || "";
}

function onStatus(hostName, status) {
  const h = host(hostName);
  h.state = status.state;
  h.section.querySelector(".state").textContent = status.state + (status.version ? ` ${status.version}` : "");
  if (status.state !== "online") for (const el of h.tiles.values()) setGone(el, "host offline");
  else describe(hostName);
}

function onCameras(hostName, cameras) {
  const h = host(hostName);
  const present = new Set(cameras.map((c) => c.serial));
  for (const camera of cameras) {
    const el = tile(hostName, camera.serial);
    el.querySelector(".model").textContent = camera.model || "";
    setGone(el, camera.ready ? (h.state === "offline" ? "host offline" : "") : `not ready: ${camera.step || ""}`);
  }
  for (const [serial, el] of h.tiles) if (!present.has(serial)) setGone(el, "camera disconnected");
  if (h.state === "online") describe(hostName);
}

function describe(hostName) {
  command(`${hostName}/cmd`, { op: "describe" }, (_, result) => {
    for (const camera of result.cameras || []) showSettings(hostName, camera);
  });
}

function showSettings(hostName, camera) {
  const el = tile(hostName, camera.serial);
  const props = camera.properties || {};
  el.querySelector(".battery").textContent = props["Battery Level"] ? `battery ${props["Battery Level"].value}` : "";
  el.querySelector(".zoom").textContent = camera.zoom ? `zoom ${camera.zoom.position}/${camera.zoom.max}` : "";
  const settings = el.querySelector(".settings");
  settings.replaceChildren();
  for (const name of SETTINGS.filter((n) => props[n])) {
    const label = document.createElement("label");
    label.textContent = name;
    const select = document.createElement("select");
    select.dataset.property = name;
    for (const choice of props[name].choices) select.add(new Option(choice, choice, false, choice === props[name].value));
    select.addEventListener("change", () => {
      command(`${hostName}/cmd`, { op: "set", serials: [camera.serial], property: name, value: select.value },
              (_, result) => { if (!result.ok) alert(result.error || result.cameras?.[0]?.error); describe(hostName); });
    });
    settings.append(label, select);
  }
}

// A cheap fingerprint of a frame, so that a page (or a test) sees it change.
function fingerprint(bytes) {
  let hash = 2166136261;
  for (let i = 0; i < bytes.length; i += 7) hash = Math.imul(hash ^ bytes[i], 16777619) >>> 0;
  return hash.toString(16);
}

function onPreview(hostName, serial, bytes) {
  const el = tile(hostName, serial);
  const img = el.querySelector("img.preview");
  const previous = img.src;
  img.src = URL.createObjectURL(new Blob([bytes], { type: "image/jpeg" }));
  if (previous) URL.revokeObjectURL(previous);
  el.dataset.frames = String(Number(el.dataset.frames) + 1);
  el.dataset.frame = fingerprint(bytes);
  el.dataset.lastFrame = String(Date.now());
  if (el.querySelector(".reason").textContent === "no picture") setGone(el, "");
}

function onThumb(hostName, serial, name, bytes) {
  const figure = document.createElement("figure");
  figure.dataset.serial = serial;
  figure.innerHTML = `<img alt=""><figcaption></figcaption>`;
  figure.querySelector("img").src = URL.createObjectURL(new Blob([bytes], { type: "image/jpeg" }));
  figure.querySelector("figcaption").textContent = `${serial} ${name}`;
  $("strip").prepend(figure);
  while ($("strip").children.length > 24) $("strip").lastChild.remove();
}

// The shot: every host's results gathered; the spread across all released cameras.
$("shoot").addEventListener("click", () => {
  const fireAt = BigInt(Date.now() + 300) * 1000000n;
  const released = [];
  $("spread").textContent = "shooting…";
  command("cmd", { op: "shoot", fire_at: "@FIRE_AT@", thumbnails: true }, (hostName, result) => {
    for (const camera of result.cameras || []) if (camera.released_ns) released.push(BigInt(camera.released_ns));
    if (released.length) {
      const spread = released.reduce((a, b) => (a > b ? a : b)) - released.reduce((a, b) => (a < b ? a : b));
      $("spread").textContent = `spread ${Number(spread / 1000n)} µs over ${released.length} cameras`;
    }
    if (!result.ok) $("spread").textContent += ` — ${hostName}: ${result.error || "a camera failed"}`;
  }, fireAt.toString());
});

client.on("message", (topic, payload) => {
  if (!topic.startsWith(base)) return;
  const [hostName, kind, ...rest] = topic.slice(base.length).split("/");
  if (kind === "preview") return onPreview(hostName, rest[0], payload);
  if (kind === "thumb") return onThumb(hostName, rest[0], rest[1], payload);
  let message;
  try { message = JSON.parse(new TextDecoder().decode(payload)); } catch { return; }
  if (kind === "status") onStatus(hostName, message);
  else if (kind === "cameras" && Array.isArray(message)) onCameras(hostName, message);
  else if (kind === "result" && pending.has(rest[0])) pending.get(rest[0])(hostName, message);
});

// A camera that stops sending frames while the lease runs is flagged too.
setInterval(() => {
  for (const h of hosts.values())
    for (const el of h.tiles.values())
      if (!el.classList.contains("gone") && el.dataset.lastFrame && Date.now() - Number(el.dataset.lastFrame) > GONE_AFTER_MS * 2)
        setGone(el, "no picture");
}, 500);
