// Stands in for the run-time of OpenWrt's web interface, as far as a view uses it. Commands go to the test's server,
// which answers for rpcd: it holds them against the access list and gives back what the test has put there.
'use strict';

window.TestNotifications = [];
window.TestPolls = [];

function _(text) { return text; }

// "%s", "%d" and "%m" with a base: "%1024.1mB".
String.prototype.format = function(...values) {
	const units = [ ' ', ' K', ' M', ' G', ' T' ];

	return this.replace(/%(\d*)(?:\.(\d+))?([sdm])/g, (whole, base, digits, kind) => {
		const value = values.shift();

		if (kind == 's')
			return String(value);
		if (kind == 'd')
			return String(parseInt(value));

		let number = Number(value), unit = 0;

		while (number >= Number(base) && unit < units.length - 1) {
			number /= Number(base);
			unit++;
		}
		return (unit ? number.toFixed(Number(digits)) : String(number)) + units[unit];
	});
};

const dom = {
	append(node, children) {
		for (const child of Array.isArray(children) ? children : [ children ])
			if (child instanceof Node)
				node.appendChild(child);
			else if (child != null)
				node.appendChild(document.createTextNode(String(child)));
	},
	content(node, children) {
		node.replaceChildren();
		dom.append(node, children);
	}
};

function E(tag, attributes, children) {
	const node = document.createElement(tag);

	for (const [ name, value ] of Object.entries(attributes || {}))
		if (typeof value == 'function')
			node.addEventListener(name, value);
		else if (value != null)
			node.setAttribute(name, value);
	if (typeof children == 'string')
		node.innerHTML = children; // as the real one does: a bare string is HTML
	else if (children != null)
		dom.append(node, children);
	return node;
}

function cbi_update_table(table, rows, placeholder) {
	const titles = [ ...table.querySelectorAll('.th') ].map(title => title.textContent);

	table.querySelectorAll('.tr:not(.table-titles)').forEach(row => row.remove());
	for (const row of rows)
		table.appendChild(E('tr', { 'class': 'tr' },
			row.map((cell, i) => E('td', { 'class': 'td', 'data-title': titles[i] }, cell))));
	if (!rows.length)
		table.appendChild(E('tr', { 'class': 'tr placeholder' },
			[ E('td', { 'class': 'td', 'colspan': titles.length }, placeholder) ]));
}

async function command(path, parameters) {
	const answer = await fetch('/command', { method: 'POST', body: JSON.stringify([ path, ...parameters ]) });

	if (answer.status == 403) {
		const refused = new Error('Permission denied');

		refused.name = 'PermissionError';
		throw refused;
	}
	return answer.json();
}

const modules = {
	dom,
	fs: {
		exec: command,
		exec_direct: (path, parameters, type) =>
			command(path, parameters).then(done => type == 'json' ? JSON.parse(done.stdout) : done.stdout)
	},
	poll: {
		add: (look, seconds) => window.TestPolls.push({ look, seconds }),
		stop: () => { window.TestPolls.length = 0; }
	},
	ui: {
		addNotification: (title, children, kind) => window.TestNotifications.push([ kind, children.textContent ]),
		createHandlerFn: (self, name) => () => self[name]()
	},
	view: { extend: members => members }
};

async function show(url) {
	const source = await (await fetch(url)).text();
	const names = [ ...source.matchAll(/^'require ([\w.]+)(?: as (\w+))?';$/gm) ].map(found => found[2] || found[1]);
	const made = new Function('window', 'document', 'L', 'E', '_', ...names, source)(
		window, document, {}, E, _, ...names.map(name => modules[name]));
	const view = Object.create(made);

	window.TestView = view;
	document.getElementById('view').replaceChildren(await view.render(await view.load()));
	document.body.dataset.shown = 'yes';
}

show('/view/tarnwick/status.js').catch(error => {
	document.body.dataset.shown = 'failed';
	document.getElementById('view').textContent = error.stack;
});
