'use strict';
'require view';
'require fs';
'require poll';
'require ui';
'require dom';

// Each poll makes the daemon write its state, after which it reads no reports until its next tick: poll seldom.
const POLL_SECONDS = 10;
const STATUS_PROGRAM = '/usr/sbin/tarnwick-status';
const INIT_SCRIPT = '/etc/init.d/tarnwick';

const NOTES = {
	wanted: '',
	no_entry: _('no forwarding entry'),
	left_over: _('no listener'),
	unresolved: _('no entry takes it')
};

function bytesText(bytes) {
	return '%1024.1mB'.format(bytes);
}

function rateText(bitsPerSecond) {
	return '%1000.1mbit/s'.format(bitsPerSecond);
}

// A cell holds a list: a bare string would be taken for HTML, and names come from the network.
function cell(text) {
	return [ String(text) ];
}

function interfaceRow(row) {
	const hasMif = row.mif != null;

	return [
		cell(row.name),
		cell(row.role == 'upstream' ? _('provider') : _('LAN')),
		cell(row.queries), cell(row.joins), cell(row.leaves), cell(row.timeouts),
		cell(hasMif ? bytesText(row.bytes_in) : '-'),
		cell(hasMif ? bytesText(row.bytes_out) : '-')
	];
}

function streamRow(group, stream) {
	return [
		cell(group.group),
		cell(group.listeners.map(listener => listener.interface).join(', ')),
		cell(!stream ? '' : stream.source == '::' ? _('any') : stream.source),
		cell(stream ? stream.packets : ''),
		cell(stream ? rateText(stream.bits_per_second) : ''),
		cell(stream ? stream.outputs.join(', ') || _('none') : ''),
		cell(NOTES[stream ? stream.kind : 'no_entry'] || '')
	];
}

function streamRows(groups) {
	const rows = [];

	for (const group of groups) {
		const streams = group.streams.filter(stream => stream.kind != 'static_tree');

		if (streams.length)
			streams.forEach(stream => rows.push(streamRow(group, stream)));
		else if (group.listeners.length)
			rows.push(streamRow(group, null));
	}

	return rows;
}

function headings(titles) {
	return E('tr', { 'class': 'tr table-titles' }, titles.map(title => E('th', { 'class': 'th' }, [ title ])));
}

function verdictNode(check) {
	if (!check)
		return E('p', {}, [ _('The check could not be read.') ]);

	if (!check.verdict && check.result == 'ok')
		return E('div', { 'class': 'alert-message success', 'data-verdict': 'ok' },
			[ _('Nothing was found that stops a stream.') ]);

	if (!check.verdict && check.result == 'unknown')
		return E('div', { 'class': 'alert-message notice', 'data-verdict': 'unknown' },
			[ _('Nothing was found that stops a stream, but not everything could be looked at.') ]);

	const verdict = check.verdict || {};
	const lines = [ E('strong', {}, [ verdict.finding || '' ]) ];

	if (verdict.cure)
		lines.push(E('br'), _('What to do:') + ' ', E('code', {}, [ verdict.cure ]));

	return E('div', { 'class': 'alert-message warning', 'data-verdict': 'no' }, lines);
}

function isSessionOver(error) {
	return error && (error.name == 'PermissionError' || error.name == 'AccessDeniedError');
}

return view.extend({
	// Everything that the page shows; `error` in place of what could not be read.
	load: function() {
		return Promise.all([
			fs.exec_direct(STATUS_PROGRAM, [ '--json' ], 'json').catch(error => ({ error })),
			fs.exec_direct(STATUS_PROGRAM, [ '--check', '--json' ], 'json').catch(error => ({ error }))
		]);
	},

	update: function(answers) {
		const [ status, check ] = answers;

		if (isSessionOver(status && status.error) || isSessionOver(check && check.error)) {
			dom.content(this.verdict, E('div', { 'class': 'alert-message error', 'data-verdict': 'session' },
				[ _('The session has ended, or this user may not look: log in again.') ]));
			poll.stop();
			return;
		}

		const isRead = status && !status.error && Array.isArray(status.interfaces);
		const isChecked = check && !check.error && Array.isArray(check.steps);

		dom.content(this.verdict, verdictNode(isChecked ? check : null));
		cbi_update_table(this.interfaces, isRead ? status.interfaces.map(interfaceRow) : [],
			E('em', {}, [ _('tarnwick does not run, or it does not answer.') ]));
		cbi_update_table(this.streams, isRead ? streamRows(status.groups) : [],
			E('em', {}, [ _('No host on the LAN listens to a stream.') ]));
	},

	restart: function() {
		return fs.exec(INIT_SCRIPT, [ 'restart' ]).then(done => {
			if (done.code != 0)
				throw new Error(done.stderr || _('status %d').format(done.code));
		}).catch(error => {
			ui.addNotification(null, E('p', {}, [ _('The restart failed: %s').format(error.message) ]), 'error');
		});
	},

	render: function(answers) {
		this.verdict = E('div', { 'id': 'tarnwick-verdict' });
		this.interfaces = E('table', { 'class': 'table', 'id': 'tarnwick-interfaces' }, [
			headings([ _('Interface'), _('Side'), _('Queries'), _('Joins'), _('Leaves'), _('Timeouts'),
				_('Received'), _('Sent') ])
		]);
		this.streams = E('table', { 'class': 'table', 'id': 'tarnwick-streams' }, [
			headings([ _('Group'), _('Listeners'), _('Source'), _('Packets'), _('Rate'), _('Sent to'), _('Note') ])
		]);
		this.update(answers);
		poll.add(() => this.load().then(again => this.update(again)), POLL_SECONDS);

		return E('div', { 'class': 'cbi-map' }, [
			E('h2', {}, [ _('Multicast streams') ]),
			this.verdict,
			E('div', { 'class': 'cbi-section' }, [ E('h3', {}, [ _('Streams') ]), this.streams ]),
			E('div', { 'class': 'cbi-section' }, [ E('h3', {}, [ _('Interfaces') ]), this.interfaces ]),
			E('div', { 'class': 'right' }, [
				E('button', {
					'class': 'btn cbi-button cbi-button-action',
					'id': 'tarnwick-restart',
					'click': ui.createHandlerFn(this, 'restart')
				}, [ _('Restart tarnwick') ])
			])
		]);
	},

	handleSave: null,
	handleSaveApply: null,
	handleReset: null
});
