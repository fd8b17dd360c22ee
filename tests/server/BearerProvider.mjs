// The OpenID provider of lxrepo-server's bearer-mode tests, on loopback only.
//
//   node BearerProvider.mjs <port> <issuer> <oidc-provider entry file>
//
// Serves below the issuer's path (for instance /identity) with token introspection and the
// client-credentials grant: "lxrepo-service" may introspect, "lxrepo-proxy" gets tokens for
// itself. The issuer is the repository service's /identity, which passes requests on to here.
// Prints "listening <port>" once it serves.
import http from 'node:http';
import { pathToFileURL } from 'node:url';

const [portArgument, issuer, providerEntry] = process.argv.slice(2);
const { default: Provider } = await import(pathToFileURL(providerEntry).href);
const mount = new URL(issuer).pathname.replace(/\/$/, '');

const provider = new Provider(issuer, {
  clients: [
    {
      client_id: 'lxrepo-service',
      client_secret: 'service-secret-for-introspection',
      grant_types: [],
      response_types: [],
      redirect_uris: [],
    },
    {
      client_id: 'lxrepo-proxy',
      client_secret: 'proxy-secret-for-tokens',
      grant_types: ['client_credentials'],
      response_types: [],
      redirect_uris: [],
    },
  ],
  features: {
    devInteractions: { enabled: false },
    clientCredentials: { enabled: true },
    introspection: { enabled: true },
  },
  ttl: { ClientCredentials: 600 },
});
// Endpoint addresses in the discovery document follow X-Forwarded-Host, so they name the
// service that passes requests on to here.
provider.proxy = true;

const server = http.createServer((req, res) => {
  if (req.url !== mount && !req.url.startsWith(`${mount}/`)) {
    res.writeHead(404).end();
    return;
  }
  // The provider routes below its issuer's path and learns the mount from originalUrl.
  req.originalUrl = req.url;
  req.url = req.url.slice(mount.length) || '/';
  provider.callback()(req, res);
});

server.listen(Number(portArgument), '127.0.0.1', () => {
  process.stdout.write(`listening ${server.address().port}\n`);
});

process.on('SIGTERM', () => process.exit(0));
