// The gallery: a grid of "medium" thumbnails from the thumbnail endpoint, lazily
// loaded; a click (or Enter) opens the "large" one. A thumbnail that fails
// shows a placeholder. The list comes page by page, so a large tree neither
// arrives at once nor blocks the page. ?eager=1 loads every thumbnail at
// once and ?page=N lists N files a page (for tests).
'use strict';

const params = new URLSearchParams(location.search);
const eager = params.has('eager');
const grid = document.getElementById('grid');
const status = document.getElementById('status');
const viewer = document.getElementById('viewer');
const large = document.getElementById('large');
const caption = document.getElementById('caption');
const counts = { total: 0, loaded: 0, failed: 0 };
const pageSize = Math.max(1, Number(params.get('page')) || 500);
let opener = null;  // the tile that opened the large view, focused again on close

function thumbUrl(path, size) {
  return 'thumb?' + new URLSearchParams({ path, size, fallback: '1' });
}

function humanSize(bytes) {
  const units = ['B', 'KB', 'MB', 'GB'];
  let i = 0;
  while (bytes >= 1024 && i < units.length - 1) { bytes /= 1024; i++; }
  return (i ? bytes.toFixed(1) : bytes) + ' ' + units[i];
}

function report() {
  const settled = counts.loaded + counts.failed;
  status.textContent = `${counts.total} files, ${counts.loaded} thumbnails shown` +
      (counts.failed ? `, ${counts.failed} unavailable` : '');
  status.dataset.total = counts.total;
  status.dataset.loaded = counts.loaded;
  status.dataset.failed = counts.failed;
  status.dataset.settled = settled === counts.total ? 'yes' : 'no';
}

function tile(file) {
  const figure = document.createElement('figure');
  const frame = document.createElement('div');
  frame.className = 'frame';
  const img = document.createElement('img');
  img.alt = file.path;
  img.loading = eager ? 'eager' : 'lazy';
  img.decoding = 'async';
  // Each thumbnail settles once: the placeholder's own load is no thumbnail.
  let settled = false;
  img.addEventListener('load', () => {
    if (settled) return;
    settled = true;
    counts.loaded++;
    report();
  });
  img.addEventListener('error', () => {
    if (settled) return;
    settled = true;
    figure.classList.add('failed');
    img.src = 'placeholder.svg';
    counts.failed++;
    report();
  });
  img.src = thumbUrl(file.path, 'medium');
  frame.append(img);
  const cap = document.createElement('figcaption');
  const name = document.createElement('span');
  name.className = 'name';
  name.textContent = file.path;
  const meta = document.createElement('span');
  meta.className = 'meta';
  meta.textContent = `${file.type} · ${humanSize(file.size)}`;
  cap.append(name, meta);
  figure.append(frame, cap);
  figure.tabIndex = 0;
  figure.setAttribute('role', 'button');
  figure.setAttribute('aria-label', `Open ${file.path}`);
  figure.addEventListener('click', () => open(file, figure));
  figure.addEventListener('keydown', (e) => {
    if (e.key === 'Enter' || e.key === ' ') { e.preventDefault(); open(file, figure); }
  });
  return figure;
}

function open(file, from) {
  opener = from;
  const text = `${file.path} — ${file.type}, ${humanSize(file.size)}`;
  large.hidden = false;
  large.onerror = () => {
    large.hidden = true;
    caption.textContent = `${file.path}: the large picture is not available`;
  };
  large.src = thumbUrl(file.path, 'large');
  large.alt = file.path;
  caption.textContent = text;
  viewer.hidden = false;
  document.getElementById('close').focus();
}

function close() {
  if (viewer.hidden) return;
  viewer.hidden = true;
  large.onerror = null;
  large.removeAttribute('src');
  if (opener) opener.focus();
}
document.getElementById('close').addEventListener('click', close);
viewer.addEventListener('click', (e) => { if (e.target === viewer) close(); });
document.addEventListener('keydown', (e) => { if (e.key === 'Escape') close(); });

async function loadList() {
  for (let offset = 0; ; offset += pageSize) {
    const r = await fetch('thumb?' + new URLSearchParams({ list: '1', offset, limit: pageSize }));
    if (!r.ok) throw new Error('listing failed: ' + r.status);
    const data = await r.json();
    counts.total = data.total;
    report();
    grid.append(...data.files.map(tile));
    if (data.files.length < pageSize || offset + data.files.length >= data.total) return;
    // Let the page draw and answer between pages.
    await new Promise((resolve) => setTimeout(resolve, 0));
  }
}

loadList().catch((e) => { status.textContent = e.message; status.dataset.settled = 'error'; });
