// Lists the changes with search and filters, and puts those of each step beside its trace. What the
// page was made of may hold anything: it gets into the page as text nodes only.
'use strict';
(() => {
  const atOnce = 100; // changes that a thing shows before it is asked for more
  const openUpTo = 60; // changes that are shown without opening their things
  const find = (id) => document.getElementById(id);
  const facts = JSON.parse(find('facts').textContent);
  facts.steps.forEach((step, index) => { step.index = index; });

  function make(tag, properties, ...children) {
    const made = Object.assign(document.createElement(tag), properties);
    made.append(...children.filter((child) => child !== ''));
    return made;
  }
  const link = (href, text) => make('a', { href }, text);
  const countText = (count, noun) => count + ' ' + noun + (count === 1 ? '' : 's');

  // ---- Data

  const lost = new Map(); // of a store's record: what is lost
  for (const [store, key, what] of facts.lost) {
    const place = store + '\n' + key;
    lost.set(place, (lost.get(place) ?? []).concat(what || []));
  }

  function lossOf(change) {
    return change.elsewhere || change.key === undefined || change.change === 'added' ? undefined
      : lost.get(change.name + '\n' + change.key);
  }

  // A thing's lines are read when they are first wanted.
  const things = facts.things.map((thing, index) => {
    let changes;
    const read = () => [...document.querySelectorAll(`script.changes[data-thing="${index}"]`)]
      .flatMap((block) => block.textContent.trim().split('\n')).map((line) => JSON.parse(line));
    return { ...thing, changes: () => changes ??= read() };
  });

  // Changes that came as one list, as things. They are of another conversion than the steps and losses.
  function grouped(changes) {
    const groups = new Map();
    for (const change of changes) {
      const name = change.kind + '\n' + change.name;
      if (!groups.has(name)) groups.set(name, { kind: change.kind, name: change.name, list: [] });
      groups.get(name).list.push({ ...change, step: undefined, elsewhere: true });
    }
    return [...groups.values()].map((group) => ({ ...group, total: group.list.length, changes: () => group.list }));
  }

  // The steps that wrote it, the last one at the end.
  const stepsOf = (change) => [...(change.earlier_steps ?? []), change.step].map((index) => facts.steps[index]).filter((step) => step);

  // ---- Text

  function textOf(value) {
    if (value === null || value === undefined) return 'none';
    if (typeof value !== 'object') return value === '' ? '""' : String(value);
    const text = Array.isArray(value) ? value.map(textOf).join(';\n')
      : Object.entries(value).map(([name, member]) => name + ' ' + textOf(member)).join(', ');
    return text === '' ? 'none' : text;
  }

  // All that a search looks through.
  function searchText(change) {
    const flat = (value) => value === null || typeof value !== 'object' ? String(value)
      : Object.entries(value).map(([name, member]) => (Array.isArray(value) ? '' : name + ' ') + flat(member)).join(' ');
    const side = (value) => value === undefined ? '' : value.value === undefined ? flat(value) : value.value + ' ' + flat(value.decoded ?? {});
    return change.search ??= [change.change, change.kind, change.name, change.key ?? '', change.routine ?? '',
      flat(stepsOf(change).map((step) => step.label)), side(change.a), side(change.b), flat(lossOf(change) ?? [])].join(' ').toLowerCase();
  }

  // ---- One change

  // Rows are a field's name and its values before and after; undefined where it is not there.
  function table(caption, rows) {
    const head = make('tr', {}, ...['Field', 'Before', 'After'].map((name) => make('th', { scope: 'col' }, name)));
    const body = rows.map(([name, ...values]) => make('tr', {}, make('th', { scope: 'row' }, name),
      ...values.map((value) => make('td', { className: value === undefined ? 'value none' : 'value' }, textOf(value)))));
    return make('table', { ariaLabel: caption }, make('thead', {}, head), make('tbody', {}, ...body));
  }

  const undecoded = (side) => side && side.value !== undefined && (!side.decoded || side.decoded.damaged || side.decoded.misfit);
  const misfit = (side) => side?.decoded?.misfit;

  // All that is known of one side, by name.
  function fieldsOf(side, withBytes) {
    if (side.value === undefined) return side;
    const { kind, misfit: unfit, ...fields } = side.decoded ?? {};
    return withBytes || undecoded(side) ? { ...fields, bytes: side.value } : fields;
  }

  function bothSides(a, b) {
    const names = new Set([...Object.keys(a), ...Object.keys(b)]);
    return [...names].map((name) => [name, a[name], b[name]]);
  }

  // What few want to see, made when it is opened.
  function folded(title, content) {
    const fold = make('details', { className: 'whole' }, make('summary', {}, title));
    fold.addEventListener('toggle', () => fold.children.length === 1 && fold.append(content()));
    return fold;
  }

  // What stands on one side only.
  function oneSide(side) {
    const list = make('dl', { className: 'fields' }, ...Object.entries(fieldsOf(side, false)).map(([name, value]) =>
      make('div', {}, make('dt', {}, name), make('dd', {}, textOf(value)))));
    return side.value === undefined || undecoded(side) ? [list] : [list, folded('Bytes', () => make('code', {}, side.value))];
  }

  // What is told of a change, as elements.
  function bodyOf(change) {
    if (change.change === 'unreadable') {
      return [make('p', {}, change.a ? 'Before: ' : 'After: ', (change.a ?? change.b).trouble)];
    }
    if (change.change !== 'changed') {
      return oneSide(change.a ?? change.b);
    }
    const rows = Object.entries(change.fields ?? {}).map(([name, sides]) => [name, sides.a ?? undefined, sides.b ?? undefined]);
    if (misfit(change.a) || misfit(change.b)) rows.push(['problems', change.a.decoded?.problems, change.b.decoded?.problems]);
    if (rows.length === 0 || undecoded(change.a) || undecoded(change.b)) rows.push(['bytes', change.a.value, change.b.value]);
    const whole = () => table('Whole record', bothSides(fieldsOf(change.a, true), fieldsOf(change.b, true)));
    return [table('Fields that changed', rows), ...(change.key === undefined ? [] : [folded('Whole record', whole)])];
  }

  function madeBy(change) {
    const steps = stepsOf(change).flatMap((step) => [', then by ', link('#step-' + step.index, step.label)]).slice(1);
    const routine = change.routine ? [', ', make('code', {}, change.routine)] : [];
    const nobody = change.kind === 'switch' ? 'the version change itself' : 'a step that is not known';
    return ['by ', ...(steps.length > 0 ? steps : [nobody]), ...routine];
  }

  function changeItem(change, headTag = 'h4') {
    const loss = lossOf(change);
    const record = change.key === undefined ? change.kind : (change.a ?? change.b).decoded?.kind ?? 'record';
    const head = make(headTag, {}, make('span', { className: 'word ' + change.change }, change.change), ' ', record,
      change.key === undefined ? '' : ' ', change.key === undefined ? '' : make('code', {}, change.key === '' ? '(empty key)' : change.key));
    const item = make('li', { className: 'change ' + change.change }, head);
    if (loss) {
      item.append(' ', make('span', { className: 'word lost' }, 'lost' + (loss.length ? ': ' + loss.join(', ') : '')));
    }
    if (misfit(change.a) || misfit(change.b)) {
      item.append(' ', make('span', { className: 'word misfit' }, 'does not fit its release'));
    }
    item.append(...bodyOf(change));
    if (change.step !== undefined) item.append(make('p', { className: 'by' }, ...madeBy(change)));
    return item;
  }

  // ---- Things

  function more(count) {
    const place = facts.complete ? [' in ', link(facts.complete, 'the complete list')] : [' not kept in this page'];
    return make('p', { className: 'note' }, count + ' more', ...place, '.');
  }

  // A thing that shows its changes when it is opened, some at a time. `list` gives those to show.
  function thingDetails(thing, list, count, rest) {
    const items = make('ol', {});
    const button = make('button', { type: 'button', hidden: true });
    const head = make('summary', {}, make('h3', { className: 'name' }, thing.name), ' ',
      make('span', { className: 'of' }, thing.kind + ', ' + countText(count, 'change')));
    const details = make('details', { className: 'thing' }, head, items, button);
    const show = () => {
      const all = list();
      const first = items.children.length;
      items.append(...all.slice(first, first + atOnce).map((change) => changeItem(change)));
      const left = all.length - items.children.length;
      button.hidden = left === 0;
      button.textContent = `Show ${Math.min(left, atOnce)} more of ${left}`;
      if (left === 0 && rest > 0) details.append(more(rest));
      return items.children[first];
    };
    button.addEventListener('click', () => {
      const next = show();
      next.tabIndex = -1;
      next.focus();
    });
    details.fill = () => {
      if (items.children.length === 0) show();
    };
    details.addEventListener('toggle', () => details.open && details.fill());
    return details;
  }

  function showThings(place, found) {
    const all = found.reduce((sum, one) => sum + one.count, 0);
    place.replaceChildren(...found.map(({ thing, list, count, rest }) => thingDetails(thing, list, count, rest)));
    for (const details of all <= openUpTo ? place.children : []) {
      details.fill();
      details.open = true;
    }
  }

  // ---- Filters

  const form = find('filters');
  const controls = [...form.elements].filter((control) => control.name);

  function filters() {
    const set = {};
    for (const control of controls) {
      const value = control.type === 'checkbox' ? (control.checked ? '1' : '') : control.value.trim();
      if (value !== '') set[control.name] = value;
    }
    return set;
  }

  const tests = {
    q: (change, wanted) => wanted.toLowerCase().split(/\s+/).every((word) => searchText(change).includes(word)),
    change: (change, wanted) => change.change === wanted,
    kind: (change, wanted) => change.kind === wanted,
    store: (change, wanted) => change.name === wanted,
    service: (change, wanted) => stepsOf(change).some((step) => step.service === wanted),
    step: (change, wanted) => wanted === 'none' ? stepsOf(change).length === 0 : stepsOf(change).some((step) => String(step.index) === wanted),
    lost: (change) => lossOf(change) !== undefined,
  };

  function matching(thing, set) {
    if ((set.kind && set.kind !== thing.kind) || (set.store && set.store !== thing.name) || (set.change && thing[set.change] === 0)) {
      return [];
    }
    return thing.changes().filter((change) => Object.entries(set).every(([name, wanted]) => tests[name](change, wanted)));
  }

  function statusText(found, filtered) {
    const total = things.reduce((sum, thing) => sum + thing.total, 0);
    const unkept = things.reduce((sum, thing) => sum + thing.total - thing.kept, 0);
    if (total === 0) return 'Nothing changes.';
    if (!filtered) return `${countText(total, 'change')} of ${countText(things.length, 'thing')}.`;
    const count = found.reduce((sum, one) => sum + one.count, 0);
    return `${count} of ${countText(total, 'change')}, in ${found.length} of ${countText(things.length, 'thing')}.` +
      (unkept > 0 ? ` ${unkept} that only the complete list holds were not looked at.` : '');
  }

  function apply() {
    const set = filters();
    const filtered = Object.keys(set).length > 0;
    const found = things.map((thing) => {
      if (!filtered) return { thing, list: thing.changes, count: thing.total, rest: thing.total - thing.kept };
      const list = matching(thing, set);
      return { thing, list: () => list, count: list.length, rest: 0 };
    }).filter((one) => one.count > 0);
    showThings(find('things'), found);
    find('shown').textContent = statusText(found, filtered);
    return set;
  }

  // Filters stand in the address, so that what they show can be linked.
  function keepInAddress(set) {
    history.replaceState(null, '', '#' + new URLSearchParams(set)); // "#" alone when there is none
  }

  // "#change=removed&q=..." sets the filters; "#step-3" is a place in the page.
  function takeAddress() {
    const address = location.hash.slice(1);
    if (!address.includes('=')) {
      const place = address && find(address);
      if (place?.tagName === 'DETAILS') place.open = true;
      return false;
    }
    const wanted = new URLSearchParams(address);
    for (const control of controls) {
      const value = wanted.get(control.name) ?? '';
      if (control.type === 'checkbox') control.checked = value === '1';
      else control.value = value;
      if (control.selectedIndex === -1) control.value = '';
    }
    return true;
  }

  function offer(name, values) {
    for (const [value, label] of values) {
      form.elements[name].append(make('option', { value }, label));
    }
  }

  function wait(action, milliseconds) {
    let timer;
    return () => {
      clearTimeout(timer);
      timer = setTimeout(action, milliseconds);
    };
  }

  function startFilters() {
    const same = (value) => [value, value];
    offer('kind', [...new Set(things.map((thing) => thing.kind))].map(same));
    offer('store', things.map((thing) => same(thing.name)));
    offer('service', [...new Set(facts.steps.map((step) => step.service))].sort().map(same));
    offer('step', facts.steps.map((step, index) => [String(index), step.label]));
    const changed = () => keepInAddress(apply());
    form.addEventListener('input', wait(changed, 150));
    form.addEventListener('reset', () => setTimeout(changed));
    form.addEventListener('submit', (event) => event.preventDefault());
    addEventListener('hashchange', () => {
      if (takeAddress()) {
        apply();
        find('changes').scrollIntoView();
      }
    });
    form.hidden = things.length === 0;
    const linked = takeAddress();
    apply();
    if (linked) find('changes').scrollIntoView();
  }

  // ---- Steps, and the lists that have no filters

  const fromStep = 20; // changes that a step shows

  function fillStep(place) {
    if (place.children.length > 1) return;
    const step = place.dataset.step;
    const made = things.map((thing) => ({ thing, list: matching(thing, { step }) })).filter(({ list }) => list.length > 0);
    const count = made.reduce((sum, { list }) => sum + list.length, 0);
    let left = fromStep;
    for (const { thing, list } of made) {
      if (left > 0) {
        place.append(make('h6', {}, thing.name), make('ol', {}, ...list.slice(0, left).map((change) => changeItem({ ...change, step: undefined }, 'p'))));
      }
      left -= list.length;
    }
    place.append(count === 0 ? make('p', { className: 'note' }, 'Nothing of what is changed in the end.')
      : make('p', {}, link('#step=' + step, `${countText(count, 'change')} in the list of changes`)));
  }

  for (const place of document.querySelectorAll('.made')) {
    const step = place.closest('details');
    step.fill = () => fillStep(place);
    step.addEventListener('toggle', () => step.open && step.fill());
  }

  for (const block of document.querySelectorAll('section > script[type="application/json"]')) {
    const list = block.parentElement.querySelector('.list');
    showThings(list, grouped(JSON.parse(block.textContent)).map((thing) => ({ thing, list: thing.changes, count: thing.total, rest: 0 })));
  }

  startFilters();

  // On paper everything is open: of each thing what it shows, at least its first changes.
  let closed = [];
  addEventListener('beforeprint', () => {
    closed = [...document.querySelectorAll('details:not([open], .whole)')];
    for (const details of closed) {
      details.fill?.();
      details.open = true;
    }
  });
  addEventListener('afterprint', () => {
    for (const details of closed) details.open = false;
  });
})();
