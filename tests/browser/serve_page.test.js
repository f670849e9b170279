// The orqcam serve page in Debian's headless chromium against four virtual cameras: four live
// views advance, a drop-down changes a camera's setting, shoot-all brings four thumbnails. With
// mosquitto and root, the page also follows a rig of one node (in a private /tmp, as another
// PC): its cameras listed, fire all, and the last shot's pictures as the node keeps them.
//   node serve_page.test.js ORQCAM_BINARY OUTPUT_DIR
// Writes OUTPUT_DIR/serve-page.png; exits 0 when every check held.
"use strict";
const { spawn, spawnSync } = require("child_process");
const crypto = require("crypto");
const fs = require("fs");
const net = require("net");
const os = require("os");
const path = require("path");
const puppeteer = require("puppeteer-core");

const [binary, outputDir] = process.argv.slice(2);
if (!binary || !outputDir) {
  console.error("usage: node serve_page.test.js ORQCAM_BINARY OUTPUT_DIR");
  process.exit(2);
}
const models = ["SX160", "A810", "SX150", "SX170"];
const token = "browser-" + process.pid;

function check(condition, what) {
  if (!condition) throw new Error("failed: " + what);
  console.log("ok: " + what);
}

async function until(what, predicate, timeoutMs = 15000) {
  const end = Date.now() + timeoutMs;
  for (;;) {
    const value = await predicate();
    if (value) return value;
    if (Date.now() > end) throw new Error("timed out: " + what);
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
}

// A broker on a free loopback port and one node with two virtual cameras; null without them.
async function startRig() {
  if (spawnSync("sh", ["-c", "command -v mosquitto"]).status !== 0 || process.getuid() !== 0) {
    console.log("skipped: the rig view (needs mosquitto and root)");
    return null;
  }
  const port = await new Promise((resolve) => {
    const probe = net.createServer().listen(0, "127.0.0.1", () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    });
  });
  // Not under /tmp, which the node has its own of.
  const work = fs.mkdtempSync("/var/tmp/orqcam-page-rig-");
  fs.writeFileSync(path.join(work, "m.conf"),
                   `listener ${port} 127.0.0.1\nallow_anonymous true\npersistence false\n`);
  const rig = { work, store: path.join(work, "store"), url: `mqtt://127.0.0.1:${port}`, children: [] };
  rig.children.push(spawn("mosquitto", ["-c", path.join(work, "m.conf")], { stdio: "ignore" }));
  await until("the broker listening", () => new Promise((resolve) => {
    const socket = net.connect(port, "127.0.0.1", () => { socket.destroy(); resolve(true); });
    socket.on("error", () => resolve(false));
  }));
  const node = `mount -t tmpfs tmpfs /tmp && exec '${binary}' --virtual SX160 --virtual A810 node ` +
               `--broker ${rig.url} --rig page --node pc-b --store '${rig.store}'`;
  rig.children.push(spawn("unshare", ["-m", "--propagation", "private", "--", "sh", "-c", node],
                          { stdio: ["ignore", "ignore", "inherit"] }));
  return rig;
}

async function checkRigView(page, base, rig) {
  await until("the rig's two cameras on the page", () =>
    page.$$eval("#rig-cameras tr", (rows) => rows.length === 2 && !document.getElementById("rig").hidden));
  await page.click("#rig-fire");
  const last = await until("the rig shot complete", async () => {
    const view = await api(base, "/api/rig");
    return view.last && view.last.complete && view.last;
  }, 30000);
  const shown = await until("the page shows both pictures", () => page.$$eval("#rig-last tr",
    (rows) => rows.length === 2 && rows.every((r) => r.dataset.status === "fired" &&
                                                     /IMG_\d+\.JPG/.test(r.textContent)) &&
      rows.map((r) => r.textContent)));
  // The pictures the page names are those the node keeps, byte for byte as announced.
  for (const camera of last.cameras) {
    const kept = fs.readFileSync(path.join(rig.store, camera.file.path));
    check(crypto.createHash("sha256").update(kept).digest("hex") === camera.file.sha256 &&
          shown.some((text) => text.includes(camera.camera) && text.includes(camera.file.name)),
          `the rig view shows ${camera.camera}'s ${camera.file.name}, kept by its node`);
  }
}

function startServer(rig) {
  const args = [];
  for (const model of models) args.push("--virtual", model);
  args.push("serve", "--listen", "127.0.0.1:0", "--token", token);
  if (rig) args.push("--broker", rig.url, "--rig", "page");
  const server = spawn(binary, args, { stdio: ["ignore", "pipe", "inherit"] });
  const address = new Promise((resolve, reject) => {
    let text = "";
    server.stdout.on("data", (chunk) => {
      text += chunk;
      const found = text.match(/on (http:\/\/\S+)/);
      if (found) resolve(found[1]);
    });
    server.on("exit", (code) => reject(new Error("orqcam serve ended with " + code)));
  });
  return { server, address };
}

async function api(base, route) {
  const response = await fetch(base + route, { headers: { Authorization: "Bearer " + token } });
  return response.json();
}

async function main() {
  fs.mkdirSync(outputDir, { recursive: true });
  const rig = await startRig();
  const { server, address } = startServer(rig);
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), "orqcam-chromium-"));
  let browser;
  try {
    const base = (await address).replace(/\/(\?.*)?$/, "");
    browser = await puppeteer.launch({
      executablePath: "/usr/bin/chromium",
      headless: true,
      args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--user-data-dir=" + profile],
    });
    const page = await browser.newPage();
    await page.setViewport({ width: 1400, height: 1000 });
    page.on("pageerror", (error) => console.error("page error: " + error.message));

    // Bytes that arrive on each live-view stream, counted by the browser itself.
    const cdp = await page.createCDPSession();
    await cdp.send("Network.enable");
    const liveUrls = new Map();
    const received = new Map();
    cdp.on("Network.requestWillBeSent", (event) => {
      const live = event.request.url.match(/\/api\/cameras\/(\d+)\/live/);
      if (live) liveUrls.set(event.requestId, live[1]);
    });
    cdp.on("Network.dataReceived", (event) => {
      const camera = liveUrls.get(event.requestId);
      if (camera !== undefined) received.set(camera, (received.get(camera) || 0) + event.dataLength);
    });

    await page.goto(`${base}/?token=${token}`);
    await until("four cameras on the page",
                () => page.$$eval("section.camera", (cards) => cards.length === 4));
    const names = await page.$$eval("section.camera h2", (heads) => heads.map((h) => h.textContent));
    check(models.every((model) => names.some((name) => name.includes(model))),
          "each camera shows its model and serial: " + names.join(" | "));

    await until("four live views showing a frame", () =>
      page.$$eval("img.live", (images) => images.length === 4 && images.every((i) => i.naturalWidth > 0)));
    const before = new Map(received);
    await new Promise((resolve) => setTimeout(resolve, 1500));
    const advanced = ["0", "1", "2", "3"].filter((c) => (received.get(c) || 0) > (before.get(c) || 0));
    check(advanced.length === 4, "four live views advance: " +
          ["0", "1", "2", "3"].map((c) => `${c}:${before.get(c) || 0}->${received.get(c) || 0}`).join(" "));

    // ISO Speed of camera 0, from its drop-down, to a value it does not hold.
    const select = "section[data-camera='0'] select[data-setting='7']";
    await page.waitForSelector(select);
    const wanted = await page.$eval(select, (s) =>
      [...s.options].map((o) => o.value).find((v) => v !== s.value));
    const answered = page.waitForResponse((r) => r.url().includes("/api/cameras/0/settings/7") &&
                                                  r.request().method() === "POST");
    await page.select(select, wanted);
    check((await answered).status() === 200, "the set from the drop-down is accepted");
    const held = await api(base, "/api/cameras/0/settings/7");
    check(String(held.value) === wanted, `camera 0 holds ISO ${held.valueName} (${held.value})`);

    await page.click("#shoot-all");
    await until("four thumbnails", () =>
      page.$$eval("section.camera", (cards) => cards.every((card) => {
        const image = card.querySelector(".thumbs img");
        return image && image.complete && image.naturalWidth > 0;
      })), 30000);
    const links = await page.$$eval(".thumbs a", (all) => all.map((a) => a.getAttribute("href")));
    check(links.length === 4 && links.every((href) => /\/files\/-?\d+\?token=/.test(href)),
          "four thumbnails link to their files");

    if (rig) await checkRigView(page, base, rig);

    const shot = path.join(outputDir, "serve-page.png");
    await page.screenshot({ path: shot, fullPage: true });
    console.log("screenshot: " + shot);
  } finally {
    if (browser) await browser.close();
    fs.rmSync(profile, { recursive: true, force: true });
    const ended = new Promise((resolve) => server.on("exit", resolve));
    server.kill("SIGTERM");
    const code = await Promise.race([ended, new Promise((r) => setTimeout(() => r("hung"), 10000))]);
    if (code === "hung") server.kill("SIGKILL");
    for (const child of rig ? rig.children.reverse() : []) {
      const gone = new Promise((resolve) => child.on("exit", resolve));
      child.kill("SIGTERM");
      if (await Promise.race([gone, new Promise((r) => setTimeout(() => r("hung"), 10000))]) === "hung")
        child.kill("SIGKILL");
    }
    if (rig) fs.rmSync(rig.work, { recursive: true, force: true });
    check(code === 0, "orqcam serve stops on SIGTERM with exit 0 (" + code + ")");
  }
}

main().catch((error) => {
  console.error(error.message);
  process.exit(1);
});
