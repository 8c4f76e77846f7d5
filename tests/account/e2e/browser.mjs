// Signs in through the provider's development pages in headless Chromium.
//
//   node browser.mjs --url AUTHORIZATION_URL --redirect-prefix PREFIX [--login NAME]
//       prints where the provider finally redirected the browser: one line
//       "REDIRECT <url>"
//   node browser.mjs --url AUTHORIZATION_URL --hand-off loopback [--login NAME]
//       lets the browser follow the redirect to the application's loopback
//       listener, and prints "PAGE <outcome> <heading>" from the page it answers
//   node browser.mjs --url AUTHORIZATION_URL --redirect-prefix PREFIX --hand-off scheme [--login NAME]
//       hands the custom-scheme redirect to the desktop as a desktop browser
//       does, with `xdg-open URL`, and prints "XDG-OPEN <exit status>"
//
// In the hand-off modes the script never reads or forwards the redirect
// itself. It exits 0, or writes the problem to standard error and exits 1.
import { execFile } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { parseArgs } from 'node:util';
import { chromium } from 'playwright-core';

const { values: options } = parseArgs({
  options: {
    url: { type: 'string' },
    'redirect-prefix': { type: 'string' },
    login: { type: 'string', default: 'alice' },
    'hand-off': { type: 'string', default: 'none' },
  },
});
const handOff = options['hand-off'];
const timeout = 60000;
const prefix = options['redirect-prefix'];

const profile = mkdtempSync(path.join(tmpdir(), 'vantor-signin-browser-'));
const context = await chromium.launchPersistentContext(profile, {
  executablePath: process.env.VANTOR_CHROMIUM ?? '/usr/bin/chromium',
  headless: true,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});

let redirected;
let handedOff = false;
const redirect = new Promise((resolve) => { redirected = resolve; });

try {
  // Nothing may leave the machine: the pages ask for web fonts.
  await context.route('**/*', (route) => {
    const url = route.request().url();
    if (handOff === 'none' && prefix && url.startsWith(prefix)) {
      redirected(`REDIRECT ${url}`);
      return route.fulfill({ status: 200, contentType: 'text/plain', body: 'Signed in.' });
    }
    return ['127.0.0.1', '[::1]'].includes(new URL(url).hostname) ? route.continue() : route.abort();
  });
  const page = context.pages()[0] ?? await context.newPage();
  page.setDefaultTimeout(timeout);
  // A custom-scheme redirect never reaches the network layer that routes
  // see; the DevTools protocol still reports the request.
  const devtools = await context.newCDPSession(page);
  devtools.on('Network.requestWillBeSent', (event) => {
    const url = event.request.url;
    if (handOff === 'loopback' || !prefix || !url.startsWith(prefix)) return;
    if (handOff === 'scheme') {
      if (handedOff) return;
      handedOff = true;
      execFile('xdg-open', [url], (error) => redirected(`XDG-OPEN ${error ? error.code ?? 1 : 0}`));
    } else {
      redirected(`REDIRECT ${url}`);
    }
  });
  await devtools.send('Network.enable');

  await page.goto(options.url);
  await page.fill('input[name="login"]', options.login);
  await page.fill('input[name="password"]', 'any-password');
  await page.click('button[type="submit"]');
  await page.waitForSelector('input[name="prompt"][value="consent"]', { state: 'attached' });
  page.click('button[type="submit"]').catch(() => {});
  if (handOff === 'loopback') {
    // The application's listener answers the redirect with its own page.
    page.waitForSelector('body[data-sign-in]').then(async (body) => {
      const outcome = await body.getAttribute('data-sign-in');
      const heading = await page.textContent('h1');
      redirected(`PAGE ${outcome} ${heading}`);
    }).catch(() => {});
  }
  const line = await Promise.race([
    redirect,
    new Promise((_, reject) => setTimeout(() => reject(new Error('no redirect in time')), timeout)),
  ]);
  process.stdout.write(`${line}\n`);
  await context.close();
  rmSync(profile, { recursive: true, force: true });
  process.exit(0);
} catch (error) {
  process.stderr.write(`browser: ${error.message}\n`);
  await context.close().catch(() => {});
  rmSync(profile, { recursive: true, force: true });
  process.exit(1);
}
