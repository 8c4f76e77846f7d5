// Signs in through the provider's development pages in headless Chromium and
// prints where the provider finally redirected the browser.
//
//   node browser.mjs --url AUTHORIZATION_URL --redirect-prefix PREFIX [--login NAME]
//
// Prints one line "REDIRECT <url>" and exits 0, or writes the problem to
// standard error and exits 1.
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
  },
});
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
const redirect = new Promise((resolve) => { redirected = resolve; });

try {
  // Nothing may leave the machine: the pages ask for web fonts.
  await context.route('**/*', (route) => {
    const url = route.request().url();
    if (url.startsWith(prefix)) {
      redirected(url);
      return route.fulfill({ status: 200, contentType: 'text/plain', body: 'Signed in.' });
    }
    return new URL(url).hostname === '127.0.0.1' ? route.continue() : route.abort();
  });
  const page = context.pages()[0] ?? await context.newPage();
  page.setDefaultTimeout(timeout);
  // A custom-scheme redirect never reaches the network layer that routes
  // see; the DevTools protocol still reports the request.
  const devtools = await context.newCDPSession(page);
  devtools.on('Network.requestWillBeSent', (event) => {
    if (event.request.url.startsWith(prefix)) redirected(event.request.url);
  });
  await devtools.send('Network.enable');

  await page.goto(options.url);
  await page.fill('input[name="login"]', options.login);
  await page.fill('input[name="password"]', 'any-password');
  await page.click('button[type="submit"]');
  await page.waitForSelector('input[name="prompt"][value="consent"]', { state: 'attached' });
  page.click('button[type="submit"]').catch(() => {});
  const url = await Promise.race([
    redirect,
    new Promise((_, reject) => setTimeout(() => reject(new Error('no redirect in time')), timeout)),
  ]);
  process.stdout.write(`REDIRECT ${url}\n`);
  await context.close();
  rmSync(profile, { recursive: true, force: true });
  process.exit(0);
} catch (error) {
  process.stderr.write(`browser: ${error.message}\n`);
  await context.close().catch(() => {});
  rmSync(profile, { recursive: true, force: true });
  process.exit(1);
}
