// A local OpenID provider for the sign-in tests and the sign-in example:
// oidc-provider on plain http at 127.0.0.1, with its development login and
// consent pages and one registered native client.
//
//   node provider.mjs --client-id ID --client-secret SECRET --redirect-uri URI
//
// Prints one line "ISSUER <url>" once it listens. It stops on SIGTERM,
// SIGINT, or when its standard input closes, so it never outlives the process
// that started it.
import http from 'node:http';
import { parseArgs } from 'node:util';
import Provider from 'oidc-provider';

const { values: options } = parseArgs({
  options: {
    'client-id': { type: 'string' },
    'client-secret': { type: 'string' },
    'redirect-uri': { type: 'string', multiple: true },
  },
});

const server = http.createServer();
await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
const issuer = `http://127.0.0.1:${server.address().port}`;

const provider = new Provider(issuer, {
  clients: [{
    client_id: options['client-id'],
    client_secret: options['client-secret'],
    redirect_uris: options['redirect-uri'],
    // Custom-scheme and loopback redirects are for native applications.
    application_type: 'native',
    grant_types: ['authorization_code', 'refresh_token'],
    response_types: ['code'],
    token_endpoint_auth_method: 'client_secret_basic',
  }],
  claims: { openid: ['sub'], email: ['email', 'email_verified'] },
  // Puts the e-mail into the ID token, where the client reads it.
  conformIdTokenClaims: false,
  pkce: { required: () => true },
  features: { devInteractions: { enabled: true } },
  cookies: { keys: ['local-test-only-cookie-key'] },
  // Every login name is an account; its e-mail is derived from it.
  async findAccount(ctx, id) {
    return {
      accountId: id,
      async claims() { return { sub: id, email: `${id}@example.test`, email_verified: true }; },
    };
  },
  // Refresh tokens for offline_access, which needs prompt=consent.
  issueRefreshToken: async (ctx, client, code) => client.grantTypeAllowed('refresh_token')
    && code.scopes.has('offline_access'),
});

server.on('request', provider.callback());
process.stdout.write(`ISSUER ${issuer}\n`);

const stop = () => server.close(() => process.exit(0)) && setTimeout(() => process.exit(0), 500).unref();
process.on('SIGTERM', stop);
process.on('SIGINT', stop);
process.stdin.on('end', stop);
process.stdin.resume();
